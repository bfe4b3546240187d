// A program linked to the SDK. Without arguments it does nothing; with one it calls sharedManager, with the
// address of a sandbox and the file of its authority it makes one exchange. It prints how long that took, in
// nanoseconds, from the process's first touch of the SDK on.

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/MainQueue.h>

namespace {

class Manager : public zembra::ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }
    static inline std::string address = "https://127.0.0.1/api/v1/";
};

}  // namespace

int main(int count, char** arguments) {
    using namespace zembra;
    if (count < 2) return EXIT_SUCCESS;
    if (count > 2) Manager::address = arguments[1];

    const auto before = std::chrono::steady_clock::now();
    const auto manager = ZMBSDKAuthManager::sharedManager<Manager>();
    bool isGood = true;
    if (count > 2) {
        manager->authClient()->addTrustedCertificateAuthorityFile(arguments[2]);
        manager->getAuthTokenSuccess([](const Value&, const Value&) { MainQueue::shared().stop(); },
                                     [&](const NSErrorPtr&) {
                                         isGood = false;
                                         MainQueue::shared().stop();
                                     });
        MainQueue::shared().run();
    }
    std::cout << std::chrono::nanoseconds(std::chrono::steady_clock::now() - before).count() << '\n';
    return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
}
