// Soak: app token exchanges, eight at a time, against a sandbox in a process of its own.
// Fails where an exchange does, or where memory or descriptors grow after a warm-up of a tenth of them.
//
//     zembra-lab-soak [<exchanges, 100000 unless given>]
//
// That is the sandbox's process; the other one has the sandbox's address and authority as arguments, too.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <utility>

#include <ZembraSandbox/SandboxServer.h>
#include <unistd.h>

#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSBundle.h>

using namespace zembra;

namespace {

constexpr int kExchangesAtOnce = 8;
constexpr long kAllowedGrowth = 1024;  // KiB

/// libcurl 8.14 closes a connection some time after its exchange, so that a few of the last may be open.
constexpr long kAllowedDescriptors = kExchangesAtOnce;

/// Talks to the other process.
class SandboxManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }

    static inline std::string address;
};

/// The resident memory in KiB and the number of descriptors of this process, told.
std::pair<long, long> usage(const char* when) {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;  // the second number
    const long residentKiB = pages * ::getpagesize() / 1024;
    const long descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    std::cout << when << residentKiB << " KiB resident, " << descriptors << " descriptors\n";
    return {residentKiB, descriptors};
}

/// Makes so many exchanges, or a few more; ends the process where one fails.
void exchange(long count) {
    for (; count > 0; count -= kExchangesAtOnce) {
        int ended = 0;
        for (int started = 0; started < kExchangesAtOnce; ++started) {
            ZMBApplication::configureApplication([&](bool success, const NSErrorPtr& error) {
                ++ended;
                if (success) return;
                if (error) std::cerr << *error << '\n';
                std::_Exit(1);
            });
        }
        const auto areEnded = [&] { return ended == kExchangesAtOnce; };
        if (!MainQueue::shared().runUntil(areEnded, std::chrono::seconds(30))) std::abort();
    }
}

}  // namespace

int main(int count, char** arguments) {
    const std::string exchanges = count > 1 ? arguments[1] : "100000";
    if (count < 4) {
        const sandbox::SandboxServer server;
        const std::string command = std::string("exec ") + arguments[0] + ' ' + exchanges + ' ' +
                                    server.baseAddress() + " '" + server.certificateAuthority() + '\'';
        return std::system(command.c_str()) == 0 ? 0 : 1;
    }
    SandboxManager::address = arguments[2];
    const auto manager = ZMBSDKAuthManager::sharedManager<SandboxManager>();
    manager->authClient()->addTrustedCertificateAuthority(arguments[3]);
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{"ZMBSDKClientID", "sandbox.demo"}, {"CFBundleIdentifier", "com.example.soak"}})));
    const long total = std::stol(exchanges);

    const auto start = std::chrono::steady_clock::now();
    exchange(total / 10);
    const auto [warmKiB, warmDescriptors] = usage("after warm-up: ");
    exchange(total - total / 10);
    const auto [endKiB, endDescriptors] = usage("at the end:    ");
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    const bool isFlat =
        endKiB - warmKiB <= kAllowedGrowth && endDescriptors - warmDescriptors <= kAllowedDescriptors;
    std::cout << total << " exchanges in " << seconds.count() << " s; memory and descriptors "
              << (isFlat ? "are flat\n" : "grew\n");
    return isFlat ? 0 : 1;
}
