// What the HTTP client does to the process that it lives in.

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <semaphore>
#include <set>

#include <curl/curl.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/POSTResult.h"
#include "support/TLSServer.h"

static bool isForkedChild = false;

/// Asked by the leak sanitizer: what other threads held when a process was forked is no leak of the child's.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
int __lsan_is_turned_off() {
    return isForkedChild ? 1 : 0;
}

static int cleanups = 0;

/// Stands in for libcurl's in this program, and counts.
extern "C" __attribute__((visibility("default"))) void curl_global_cleanup() {
    ++cleanups;
    reinterpret_cast<decltype(&::curl_global_cleanup)>(::dlsym(RTLD_NEXT, "curl_global_cleanup"))();
}

namespace zembra::test {
namespace {

std::string contentsOf(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// The number behind `name` in a file that /proc has about the one I/O thread.
std::uint64_t ofIOThread(const char* file, std::string_view name, int base = 10) {
    std::string text;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (contentsOf(task.path() / "comm") == "zembra-http\n") text = contentsOf(task.path() / file);
    }
    return std::stoull(text.substr(text.find(name) + name.size()), nullptr, base);
}

/// The process's descriptors with these flags, but for Unix sockets: libcurl 7.88 has an inherited pair.
std::set<int> descriptors(int flags) {
    std::set<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        int domain = AF_UNSPEC;
        socklen_t size = sizeof domain;
        ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size);
        if (domain != AF_UNIX && ::fcntl(descriptor, F_GETFD) == flags) found.insert(descriptor);
    }
    return found;
}

TEST(AFHTTPSessionManagerProcessTest, AForkedChildExitsCleanAndItsRequestsFailPlainly) {
    const TLSServer server;
    auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    for (const bool usesClient : {false, true}) {
        const pid_t child = ::fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            isForkedChild = true;
            if (!usesClient) std::exit(0);
            const auto result = performPOST(*client);
            client.reset();
            std::exit(result.isFailure(NSURLErrorCannotLoadFromNetwork) ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(performPOST(*client).isSuccess());
    EXPECT_EQ(server.connectionCount(), 2);  // the child did not touch it
}

TEST(AFHTTPSessionManagerProcessTest, ItsDescriptorsAreNotInheritedByPrograms) {
    std::counting_semaphore stalled(0);
    const TLSServer server([&](Connection& connection) {
        connection.readRequest();
        stalled.release();
        connection.hold();
    });
    const std::set<int> inherited = descriptors(0), own = descriptors(FD_CLOEXEC);
    for (int count = 0; count < 6; ++count) {
        const auto client = clientOf(server.address());
        startPOST(*client);
        stalled.acquire();
        EXPECT_EQ(descriptors(0), inherited);
        EXPECT_GE(descriptors(FD_CLOEXEC).size(), own.size() + 3);  // its own two and the server's
    }
    EXPECT_LE(descriptors(FD_CLOEXEC).size(), own.size() + 2);  // the server's ends may still be open
}

TEST(AFHTTPSessionManagerProcessTest, SignalsStayTheHostsAndAnIdleClientDoesNotWakeUp) {
    const auto dispositions = [] {
        std::vector<void (*)(int)> handlers;
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action {};
            if (::sigaction(signal, nullptr, &action) == 0) handlers.push_back(action.sa_handler);
        }
        return handlers;
    };
    const auto before = dispositions();
    const TLSServer server([](Connection& connection) {
        if (connection.readRequest().starts_with("POST /stall")) connection.hold();
        connection.answer();
    });
    const auto client = clientOf(server.address());
    startPOST(*client, "stall");
    EXPECT_TRUE(performPOST(*client).isSuccess());
    EXPECT_EQ(dispositions(), before);
    const std::uint64_t blocked = ofIOThread("status", "SigBlk:", 16);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD,
                             SIGTSTP, SIGWINCH, SIGIO, SIGPROF, SIGRTMIN})
        EXPECT_TRUE((blocked >> (signal - 1) & 1) != 0) << signal;

    const auto wakeUps = [] { return ofIOThread("status", "\nvoluntary_ctxt_switches:"); };
    std::this_thread::sleep_for(50ms);  // for the thread to come to rest
    const auto earlier = wakeUps();
    const std::clock_t used = std::clock();
    std::this_thread::sleep_for(2s);
    EXPECT_LE(wakeUps(), earlier + 2);
    EXPECT_LT(std::clock() - used, CLOCKS_PER_SEC / 10) << "busy";
}

TEST(AFHTTPSessionManagerProcessTest, TheHostMayUseLibcurlBeforeDuringAndAfter) {
    const TLSServer server;
    int uses = 0;
    const auto useCurl = [&] {
        ASSERT_EQ(::curl_global_init(CURL_GLOBAL_ALL), CURLE_OK);
        CURL* const easy = ::curl_easy_init();
        ::curl_easy_setopt(easy, CURLOPT_URL, server.address().c_str());
        EXPECT_EQ(::curl_easy_perform(easy), CURLE_PEER_FAILED_VERIFICATION);
        ::curl_easy_cleanup(easy);
        ::curl_global_cleanup();
        EXPECT_EQ(cleanups, ++uses) << "the host's alone";
    };
    useCurl();
    for (int count = 0; count < 2; ++count) {
        const auto client = clientOf(server.address());
        const auto result = startPOST(*client);
        useCurl();
        EXPECT_TRUE(await(result).isSuccess()) << *result;
        EXPECT_TRUE(performPOST(*client).isSuccess());
    }
    useCurl();
}

}  // namespace
}  // namespace zembra::test
