// A host of its own: copy this folder anywhere. It registers with the sandbox program that runs in another
// terminal.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

using namespace zembra;

namespace {

/// Points the SDK at the sandbox. A host that talks to the platform leaves this class out.
class SandboxManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return "https://127.0.0.1:8443/api/v1/"; }
};

}  // namespace

int main() {
    const std::filesystem::path authority = "sandbox-ca.pem";
    if (!exists(authority)) {
        std::cerr << "The sandbox is not there: no file " << absolute(authority)
                  << ". Start it in this folder:\n"
                  << "    zembra-sandbox --port 8443 --ca-file sandbox-ca.pem\n";
        return EXIT_FAILURE;
    }
    const auto manager =
        ZMBSDKAuthManager::sharedManager<SandboxManager>();  // before anything else of the SDK
    manager->authClient()->addTrustedCertificateAuthorityFile(authority);

    int status = EXIT_FAILURE;
    ZMBApplication::configureApplication([&](bool success, const NSErrorPtr& error) {
        if (success) {
            std::cout << "registered as " << manager->accountId().text() << '\n';
            status = EXIT_SUCCESS;
        } else if (error) {
            if (error->domain() == ZMBSDKErrorDomainAuth && error->code() == ZMBSDKErrorNetwork)
                std::cerr << "The sandbox does not answer: ";
            std::cerr << *error << '\n';
        }
        MainQueue::shared().stop();
    });
    MainQueue::shared().run();  // the callback comes here
    return status;
}
