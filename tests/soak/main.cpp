// Soak: app token exchanges without a pause, over keep-alive, against a sandbox in a process of its own.
// Fails where an exchange does, or where memory or descriptors grow after a warm-up of a tenth of them.
//
//     zembra-soak [<exchanges, 100000 unless given>]

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include <ZembraSandbox/SandboxServer.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ZembraCoreSDK/ZMBApplication.h>

#include <ZembraPlatform/MainQueue.h>

#include "support/SandboxManager.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

constexpr int kExchangesAtOnce = 8;
constexpr long kAllowedGrowth = 1024;  // KiB

struct Usage {
    long residentKiB = 0;
    long descriptors = 0;
};

Usage usage() {
    Usage result;
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") status >> result.residentKiB;
    }
    result.descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    return result;
}

std::ostream& operator<<(std::ostream& stream, const Usage& usage) {
    return stream << usage.residentKiB << " KiB resident, " << usage.descriptors << " descriptors";
}

/// A sandbox in a child process, which ends when this object or this process does.
class ChildSandbox {
public:
    ChildSandbox() {
        int toParent[2], toChild[2];
        if (::pipe(toParent) != 0 || ::pipe(toChild) != 0 || (child_ = ::fork()) == -1) std::abort();
        ::close(toParent[child_ == 0 ? 0 : 1]);
        ::close(toChild[child_ == 0 ? 1 : 0]);
        if (child_ == 0) {
            const sandbox::SandboxServer server;
            const std::string text = server.baseAddress() + '\n' + server.certificateAuthority();
            char byte;
            if (::write(toParent[1], text.data(), text.size()) < 0) ::_exit(1);
            ::close(toParent[1]);
            ::_exit(static_cast<int>(::read(toChild[0], &byte, 1)));
        }
        end_ = toChild[1];
        char text[4096];
        for (ssize_t size; (size = ::read(toParent[0], text, sizeof text)) > 0;)
            certificateAuthority.append(text, static_cast<std::size_t>(size));
        ::close(toParent[0]);
        address = certificateAuthority.substr(0, certificateAuthority.find('\n'));
        certificateAuthority.erase(0, address.size());
    }

    ~ChildSandbox() {
        ::close(end_);
        ::waitpid(child_, nullptr, 0);
    }

    std::string address, certificateAuthority;

private:
    pid_t child_ = -1;
    int end_ = -1;
};

/// Makes `count` exchanges; returns how many failed.
long exchange(long count) {
    long started = 0, ended = 0, failed = 0;
    while (ended < count) {
        for (; started < count && started - ended < kExchangesAtOnce; ++started) {
            ZMBApplication::configureApplication([&](bool success, const NSErrorPtr& error) {
                ++ended;
                if (!success && ++failed == 1 && error) std::cerr << *error << '\n';
            });
        }
        const long before = ended;
        if (!MainQueue::shared().runUntil([&] { return ended > before; }, 30s)) std::abort();
    }
    return failed;
}

}  // namespace

int main(int count, char** arguments) {
    const long exchanges = count > 1 ? std::atol(arguments[1]) : 100'000;
    const ChildSandbox sandbox;
    const auto manager = test::sharedManagerAt(sandbox.address, sandbox.certificateAuthority);
    test::setHostBundle("sandbox.demo", "com.example.soak");

    const auto start = std::chrono::steady_clock::now();
    long failed = exchange(exchanges / 10);
    const Usage warm = usage();
    failed += exchange(exchanges - exchanges / 10);
    const Usage end = usage();
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;

    std::cout << exchanges << " exchanges in " << seconds.count() << " s, " << failed << " failed\n"
              << "after warm-up: " << warm << "\nat the end:    " << end << '\n';
    const bool isFlat =
        end.residentKiB - warm.residentKiB <= kAllowedGrowth && end.descriptors == warm.descriptors;
    if (!isFlat) std::cout << "memory or descriptors grew\n";
    return failed == 0 && isFlat ? 0 : 1;
}
