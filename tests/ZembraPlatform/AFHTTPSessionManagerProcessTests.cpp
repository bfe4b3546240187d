// What the HTTP client does to the process that it lives in.
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace {

bool isForkedChild = false;

}  // namespace

/// Asked by the leak sanitizer: what other threads held when a process was forked is no leak of the child's.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();
int __lsan_is_turned_off() {
    return isForkedChild ? 1 : 0;
}

namespace zembra {
namespace {

using namespace std::chrono_literals;
using test::await;
using test::clientOf;
using test::Connection;
using test::performPOST;
using test::startPOST;
using test::TLSServer;
using Clock = std::chrono::steady_clock;

void answerAll(Connection& connection) {
    if (!connection.handshake()) return;
    while (!connection.readRequest().empty() && connection.answer("{}")) {
    }
}

std::string contentsOf(const std::filesystem::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// The directory under /proc of the one I/O thread.
std::filesystem::path ioThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (contentsOf(task.path() / "comm") == "zembra-http\n") return task.path();
    }
    return {};
}

/// The number behind `name` in a thread's status.
std::uint64_t statusOf(const std::filesystem::path& thread, std::string_view name, int base) {
    const std::string status = contentsOf(thread / "status");
    const std::size_t start = status.find_first_not_of(" \t", status.find(name) + name.size());
    std::uint64_t number = ~std::uint64_t{0};
    std::from_chars(status.data() + start, status.data() + status.size(), number, base);
    return number;
}

std::set<int> descriptors() {
    std::set<int> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        open.insert(std::atoi(entry.path().filename().c_str()));
    return open;
}

/// Runs the exiting host and returns its wait status.
int exitStatus(const char* how, int microseconds, const TLSServer& server) {
    std::string arguments[] = {ZEMBRA_EXITING_HOST, how, std::to_string(microseconds), server.address(),
                               TLSServer::certificateAuthority()};
    std::array<char*, 6> pointers{};
    for (std::size_t index = 0; index < std::size(arguments); ++index)
        pointers[index] = arguments[index].data();
    pid_t child = -1;
    int status = -1;
    if (::posix_spawn(&child, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0 ||
        ::waitpid(child, &status, 0) != child)
        return -1;
    return status;
}

TEST(AFHTTPSessionManagerProcessTest, LeavingTheProcessAtAnyMomentIsClean) {
    TLSServer server([](Connection& connection) {
        if (connection.handshake()) connection.hold();
    });
    constexpr int kChildren = 100;
    constexpr int kLatest = 60'000;  // microseconds: from the start of the thread to the silence after TLS
    std::atomic<int> next = 0;
    const auto work = [&] {
        for (int child = next++; child < kChildren; child = next++) {
            const char* const how = child % 2 == 0 ? "flight" : "static";
            const int delay = child * kLatest / kChildren;
            EXPECT_EQ(exitStatus(how, delay, server), 0) << how << " after " << delay << " microseconds";
        }
    };
    std::thread other(work);
    work();
    other.join();
}

TEST(AFHTTPSessionManagerProcessTest, LeavingTheProcessInsideOrBesideACallbackIsClean) {
    TLSServer server([](Connection&) {});
    EXPECT_EQ(exitStatus("callback", 0, server), 0);
    const auto start = Clock::now();
    EXPECT_EQ(exitStatus("busy", 0, server), 0);
    EXPECT_LT(Clock::now() - start, 10s);  // the callback takes thirty
}

TEST(AFHTTPSessionManagerProcessTest, AForkedChildExitsCleanAndItsRequestsFailPlainly) {
    TLSServer server(answerAll);
    auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    for (const bool usesClient : {false, true}) {
        const pid_t child = ::fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            isForkedChild = true;
            if (!usesClient) std::exit(0);
            const auto outcome = performPOST(*client);
            client.reset();
            std::exit(outcome.isFailure(NSURLErrorDomain, NSURLErrorCannotLoadFromNetwork) ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(performPOST(*client).isSuccess());
    EXPECT_EQ(server.connectionCount(), 1);  // the child did not touch it
}

TEST(AFHTTPSessionManagerProcessTest, ItsDescriptorsAreNotInheritedByPrograms) {
    std::latch isStalled(1);
    TLSServer server([&](Connection& connection) {
        if (!connection.handshake() || connection.readRequest().empty()) return;
        isStalled.count_down();
        connection.hold();
    });
    const std::set<int> before = descriptors();
    auto client = clientOf(server.address());
    const auto outcome = startPOST(*client);
    isStalled.wait();
    int count = 0;
    for (const int descriptor : descriptors()) {
        if (before.contains(descriptor) || ::fcntl(descriptor, F_GETFD) == -1) continue;
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC)
            << std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor));
        ++count;
    }
    EXPECT_GE(count, 5);
    client.reset();
    await(outcome);
    EXPECT_LE(descriptors().size(), before.size() + 1);  // the server's end may still be open
}

TEST(AFHTTPSessionManagerProcessTest, SignalsStayTheHosts) {
    const auto dispositions = [] {
        std::vector<void (*)(int)> handlers;
        for (int signal = 1; signal < NSIG; ++signal) {
            struct sigaction action {};
            if (::sigaction(signal, nullptr, &action) == 0) handlers.push_back(action.sa_handler);
        }
        return handlers;
    };
    const auto before = dispositions();
    TLSServer server(answerAll);
    auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    EXPECT_EQ(dispositions(), before);
    const std::uint64_t blocked = statusOf(ioThread(), "SigBlk:", 16);
    for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD,
                             SIGTSTP, SIGWINCH, SIGIO, SIGPROF, SIGRTMIN})
        EXPECT_TRUE((blocked >> (signal - 1) & 1) != 0) << signal;

    // A host that takes its signals from a descriptor gets them there, whoever they woke otherwise.
    sigset_t own, earlier;
    ::sigemptyset(&own);
    ::sigaddset(&own, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &own, &earlier);
    const int descriptor = ::signalfd(-1, &own, SFD_CLOEXEC);
    const auto outcome = startPOST(*client);
    ::kill(::getpid(), SIGUSR1);
    signalfd_siginfo information{};
    EXPECT_EQ(::read(descriptor, &information, sizeof information), ssize_t{sizeof information});
    EXPECT_EQ(information.ssi_signo, std::uint32_t{SIGUSR1});
    EXPECT_TRUE(await(outcome).isSuccess());
    ::close(descriptor);
    ::pthread_sigmask(SIG_SETMASK, &earlier, nullptr);
}

TEST(AFHTTPSessionManagerProcessTest, AnIdleClientDoesNotWakeUp) {
    TLSServer server(answerAll);
    auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    const auto thread = ioThread();
    constexpr std::string_view kName = "\nvoluntary_ctxt_switches:";
    std::this_thread::sleep_for(50ms);  // for the thread to come to rest
    const auto before = statusOf(thread, kName, 10);
    std::this_thread::sleep_for(2s);
    EXPECT_LE(statusOf(thread, kName, 10), before + 2);
}

TEST(AFHTTPSessionManagerProcessTest, NewConnectionsDoNotReadTheAuthoritiesAgain) {
    TLSServer server([](Connection& connection) {
        if (connection.handshake() && !connection.readRequest().empty())
            connection.answer("{}", "Content-Type: application/json\r\nConnection: close\r\n");
    });
    auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    const auto processorTime = [thread = ioThread()] {
        return std::strtoll(contentsOf(thread / "schedstat").c_str(), nullptr, 10);  // nanoseconds
    };
    const auto first = processorTime();
    constexpr int kConnections = 50;
    for (int count = 0; count < kConnections; ++count)
        EXPECT_TRUE(performPOST(*client).isSuccess());
    EXPECT_EQ(server.connectionCount(), kConnections + 1);
    EXPECT_LT((processorTime() - first) / kConnections, first / 3);  // with them it is about the same
}

TEST(AFHTTPSessionManagerProcessTest, TheHostMayUseLibcurlBeforeDuringAndAfter) {
    TLSServer server(answerAll);
    const auto useCurl = [&] {
        ASSERT_EQ(::curl_global_init(CURL_GLOBAL_ALL), CURLE_OK);
        CURL* const easy = ::curl_easy_init();
        ::curl_easy_setopt(easy, CURLOPT_URL, server.address().c_str());
        ::curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        EXPECT_EQ(::curl_easy_perform(easy), CURLE_PEER_FAILED_VERIFICATION);
        ::curl_easy_cleanup(easy);
        ::curl_global_cleanup();
    };
    useCurl();
    auto client = clientOf(server.address());
    const auto outcome = startPOST(*client);
    useCurl();
    EXPECT_TRUE(await(outcome).isSuccess()) << *outcome;
    EXPECT_TRUE(performPOST(*client).isSuccess());
    client.reset();
    useCurl();
}

}  // namespace
}  // namespace zembra
