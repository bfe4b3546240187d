// zembra-first-exchange <SDK or libcurl> <address> <authority file> [<authority directory>]: makes the first
// app token exchange of a process with a sandbox, and prints its wall time and processor time in nanoseconds.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/MainQueue.h>

#include "BareClient.h"

namespace {

class Manager : public zembra::ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }
    static inline std::string address;
};

bool exchangeBySDK(const char* authorityFile) {
    using namespace zembra;
    ZMBSDKAuthManager::sharedManager<Manager>()->authClient()->addTrustedCertificateAuthorityFile(
        authorityFile);
    bool isGood = false;
    ZMBApplication::configureApplication([&isGood](bool isConfigured, const NSErrorPtr&) {
        isGood = isConfigured;
        MainQueue::shared().stop();
    });
    MainQueue::shared().run();
    return isGood;
}

bool exchangeByLibcurl(const char* authorityFile, const std::string& authorityDirectory) {
    zembra::bench::BareClient client(Manager::address + "app/token", authorityFile, authorityDirectory);
    return client.post("client_id=sandbox.demo&signature=com.example.host");
}

double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 4) return EXIT_FAILURE;
    Manager::address = arguments[2];
    const double processorBefore = processorTime();
    const auto before = std::chrono::steady_clock::now();
    const bool isGood = arguments[1] == std::string_view("SDK")
                            ? exchangeBySDK(arguments[3])
                            : exchangeByLibcurl(arguments[3], count > 4 ? arguments[4] : "");
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - before;
    std::printf("%.0f %.0f\n", time.count(), processorTime() - processorBefore);
    return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
}
