// What the HTTP client promises about time. No other test runs beside these.
#include <algorithm>
#include <chrono>
#include <latch>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "support/HangingResolver.h"
#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace zembra {
namespace {

using namespace std::chrono_literals;
using test::await;
using test::clientOf;
using test::Connection;
using test::Outcome;
using test::performPOST;
using test::startPOST;
using test::TLSServer;
using Clock = std::chrono::steady_clock;

constexpr char kJSON[] = "Content-Type: application/json\r\n";

TEST(AFHTTPSessionManagerTimeTest, FailsWhenNothingMovedForTheTimeoutInEveryPhase) {
    constexpr auto kLimit = 2000ms;
    constexpr auto kTolerance = 500ms;
    const std::string head = "HTTP/1.1 200 OK\r\n" + std::string(kJSON) + "Content-Length: 9\r\n\r\n";
    const auto trickle = std::vector<std::string>(4, " ");

    // What the server does once it has the request, and when the timeout is due; 0 where there is none.
    struct Stall {
        std::function<void(Connection&)> serve;
        std::chrono::milliseconds due;
    };
    const std::map<std::string, Stall> stalls = {
        {"/no-answer", {[](Connection&) {}, kLimit}},
        {"/body-stops-at-0", {[&](Connection& c) { c.write(head + "1"); }, kLimit}},
        {"/body-stops-at-1", {[&](Connection& c) { c.write(head) && c.drip({" "}, 1s); }, 1s + kLimit}},
        {"/header-stops-at-1", {[&](Connection& c) { c.drip({"HTTP/1.1 200 OK\r\nX-"}, 1s); }, 1s + kLimit}},
        {"/body-drips",
         {[&](Connection& c) { c.write(head) && c.drip(trickle, 700ms) && c.write("12345"); }, 0ms}},
        {"/header-drips",
         {[&](Connection& c) {
              c.write("HTTP/1.1 200 OK\r\nX-Slow:") && c.drip(trickle, 700ms) &&
                  c.write("\r\n" + head.substr(head.find("Content")) + "        1");
          },
          0ms}},
    };
    TLSServer server([&](Connection& connection) {
        if (!connection.handshake()) return;
        const std::string header = connection.readHeader();
        const std::string path = header.substr(5, header.find(' ', 5) - 5);
        if (stalls.contains(path)) stalls.at(path).serve(connection);
        if (path == "/") return void(connection.answer("1", std::string(kJSON) + "Connection: close\r\n"));
        connection.hold();
    });
    TLSServer muteServer([](Connection& connection) { connection.hold(); });
    TLSServer slowTLSServer([](Connection& connection) {
        if (connection.slowHandshake(700ms) && !connection.readRequest().empty()) connection.answer("1");
    });
    test::UnacceptingServer unacceptingServer;

    const auto client = clientOf(server.address());
    const auto otherClient = clientOf(server.address());
    struct Running {
        std::string name;
        std::chrono::milliseconds due;
        Outcome outcome = {};
        Clock::time_point start = Clock::now();
        Clock::duration elapsed = {};
    };
    std::list<Running> running;
    const auto run = [&](AFHTTPSessionManager& by, std::string name, std::string path,
                         std::chrono::milliseconds due, Value parameters = {}) {
        by.requestSerializer().setTimeoutInterval(kLimit);
        Running& request = running.emplace_back(Running{std::move(name), due});
        by.POST(
            path, parameters, nullptr,
            [&](const auto&, const Value&) {
                ++request.outcome.callbacks;
                request.elapsed = Clock::now() - request.start;
            },
            [&](const auto&, const NSErrorPtr& error) {
                ++request.outcome.callbacks;
                request.outcome.error = error;
                request.elapsed = Clock::now() - request.start;
            });
    };
    // The certificates are read, and the large body made, before the other clocks start.
    for (auto* const by : {client.get(), otherClient.get()})
        EXPECT_TRUE(performPOST(*by, "/").isSuccess());
    run(*otherClient, "upload", "/upload", kLimit,
        Value::dictionary({{"v", std::string(std::size_t{8} << 20, 'x')}}));
    running.back().start = Clock::now();
    for (const auto& [path, stall] : stalls)
        run(*client, path, path, stall.due);
    run(*otherClient, "resolving", std::string("https://") + test::kHangingHost + '/', kLimit);
    run(*otherClient, "connecting", unacceptingServer.address(), kLimit);
    run(*otherClient, "mute TLS peer", muteServer.address(), kLimit);
    run(*otherClient, "slow TLS peer", slowTLSServer.address(), 0ms);

    const auto isDone = [](const Running& request) { return request.outcome.callbacks > 0; };
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return std::ranges::all_of(running, isDone); }, 20s));
    for (const Running& request : running) {
        SCOPED_TRACE(request.name);
        if (request.due == 0ms) {
            EXPECT_TRUE(request.outcome.isSuccess()) << request.outcome;
            EXPECT_GT(request.elapsed, kLimit);
        } else {
            EXPECT_TRUE(request.outcome.isFailure(NSURLErrorDomain, NSURLErrorTimedOut)) << request.outcome;
            EXPECT_GE(request.elapsed, request.due);
            EXPECT_LT(request.elapsed, request.due + kTolerance);
        }
    }
}

TEST(AFHTTPSessionManagerTimeTest, RequestsThatWaitForAConnectionDoNotAge) {
    TLSServer server([](Connection& connection) {
        if (!connection.handshake()) return;
        while (!connection.readRequest().empty() && connection.wait(500ms) && connection.answer("{}")) {
        }
    });
    const auto client = clientOf(server.address());
    client->requestSerializer().setTimeoutInterval(2s);
    std::vector<test::OutcomePtr> outcomes;
    for (int count = 0; count < 40; ++count)
        outcomes.push_back(startPOST(*client));
    for (const auto& outcome : outcomes)
        EXPECT_TRUE(await(outcome).isSuccess()) << *outcome;
    EXPECT_EQ(server.connectionCount(), 8);
}

TEST(AFHTTPSessionManagerTimeTest, ReadingTheAuthoritiesIsNoIdleTime) {
    TLSServer server([](Connection& connection) {
        if (connection.handshake() && !connection.readRequest().empty()) connection.answer("{}");
    });
    const auto client = clientOf(server.address());
    std::string many;  // each one takes a while to read
    for (int count = 0; count < 20'000; ++count)
        many += TLSServer::certificateAuthority();
    client->addTrustedCertificateAuthority(many);
    client->requestSerializer().setTimeoutInterval(400ms);
    const auto start = Clock::now();
    const Outcome outcome = performPOST(*client);
    EXPECT_TRUE(outcome.isSuccess()) << outcome;
    EXPECT_GT(Clock::now() - start, 400ms);
}

TEST(AFHTTPSessionManagerTimeTest, DestroyingAClientIsQuickAndCancelsItsRequests) {
    std::latch areStalled(8);
    TLSServer server([&](Connection& connection) {
        if (!connection.handshake() || connection.readRequest().empty()) return;
        areStalled.count_down();
        connection.hold();
    });
    auto client = clientOf(server.address());
    std::vector<test::OutcomePtr> outcomes;
    for (int count = 0; count < 10; ++count)
        outcomes.push_back(startPOST(*client));
    areStalled.wait();
    const auto start = Clock::now();
    client.reset();
    EXPECT_LT(Clock::now() - start, 100ms);
    for (const auto& outcome : outcomes)
        EXPECT_TRUE(await(outcome).isFailure(NSURLErrorDomain, NSURLErrorCancelled)) << *outcome;
}

TEST(AFHTTPSessionManagerTimeTest, DestroyingAClientWhileItResolvesIsQuick) {
    auto client = clientOf(std::string("https://") + test::kHangingHost + '/');
    const auto outcome = startPOST(*client);
    std::this_thread::sleep_for(50ms);  // the resolver's thread has begun; nothing tells from outside
    const auto start = Clock::now();
    client.reset();
    EXPECT_LT(Clock::now() - start, 100ms);
    EXPECT_TRUE(await(outcome).isFailure(NSURLErrorDomain, NSURLErrorCancelled)) << *outcome;
}

}  // namespace
}  // namespace zembra
