#include <algorithm>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "support/ClientFaults.h"
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
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Clock = std::chrono::steady_clock;

constexpr char kJSON[] = "Content-Type: application/json\r\n";

/// Answers every request of a connection with `body`.
TLSServer::Script answering(std::string body, std::string fields = kJSON) {
    return [=](Connection& connection) {
        if (!connection.handshake()) return;
        while (!connection.readRequest().empty() && connection.answer(body, fields)) {
        }
    };
}

/// A server that remembers the requests that it answered with `{}`.
struct Recorder {
    std::mutex mutex;
    std::vector<std::string> requests;
    TLSServer server{[this](Connection& connection) {
        if (!connection.handshake()) return;
        for (std::string request; !(request = connection.readRequest()).empty();) {
            {
                const std::lock_guard lock(mutex);
                requests.push_back(request);
            }
            connection.answer("{}");
        }
    }};
};

// What is sent
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, SendsAFormWithTheHeadersAsTheyStoodAtTheCall) {
    Recorder recorder;
    const auto client = clientOf(recorder.server.address("localhost") + "api/v1/");
    auto& serializer = client->requestSerializer();
    serializer.setValue("Bearer one", "Authorization");
    serializer.setValue("", "X-Empty");
    serializer.setValue("12", "Content-Length");
    const auto first = startPOST(*client, "app/token",
                                 Value::dictionary({{"name", "a b&c=d/é~"}, {"empty", ""}, {"count", 7}}));
    serializer.setValue(std::nullopt, "authorization");
    serializer.setValue(std::nullopt, "User-Agent");
    serializer.setValue("text/plain", "content-type");
    EXPECT_TRUE(await(first).isSuccess()) << *first;
    EXPECT_TRUE(performPOST(*client, "/other?x=1").isSuccess());

    ASSERT_EQ(recorder.requests.size(), 2u);
    EXPECT_THAT(
        recorder.requests[0],
        AllOf(StartsWith("POST /api/v1/app/token HTTP/1.1\r\n"),
              HasSubstr("\r\nAuthorization: Bearer one\r\n"), HasSubstr("\r\nX-Empty:\r\n"),
              HasSubstr("\r\nContent-Type: application/x-www-form-urlencoded\r\n"),
              HasSubstr("\r\nUser-Agent: AFHTTPSessionManagerTests (Linux "),
              EndsWith("\r\n\r\nname=a%20b%26c%3Dd%2F%C3%A9~&empty=&count=7"), Not(HasSubstr("Expect"))));
    EXPECT_THAT(recorder.requests[1],
                AllOf(StartsWith("POST /other?x=1 HTTP/1.1\r\n"), Not(HasSubstr("User-Agent")),
                      Not(HasSubstr("Authorization")), HasSubstr("\r\ncontent-type: text/plain\r\n"),
                      HasSubstr("\r\nContent-Length: 0\r\n")));
    EXPECT_EQ(recorder.server.connectionCount(), 1);
}

TEST(AFHTTPSessionManagerTest, SendsLargeBodiesWithoutDelayAndReportsProgress) {
    Recorder recorder;
    const auto client = clientOf(recorder.server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());  // the connection
    const std::string value(std::size_t{2} << 20, 'x');
    std::vector<std::int64_t> reports;
    std::int64_t total = 0;
    bool isDone = false;
    client->POST(
        "token", Value::dictionary({{"v", value}}),
        [&](std::int64_t bytesSent, std::int64_t bytesTotal) {
            EXPECT_FALSE(isDone);
            reports.push_back(bytesSent);
            total = bytesTotal;
        },
        [&](const auto&, const Value&) { isDone = true; }, nullptr);
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return isDone; }, 10s));
    EXPECT_THAT(recorder.requests.back(), AllOf(Not(HasSubstr("Expect")), EndsWith("\r\n\r\nv=" + value)));
    EXPECT_TRUE(std::ranges::is_sorted(reports));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), static_cast<std::int64_t>(value.size()) + 2);
    EXPECT_EQ(total, reports.back());
}

// What is answered
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, ReadsAnswersInEveryForm) {
    const std::string zeros = test::compressedZeros(1 << 10);
    const std::map<std::string, std::string> answers = {
        {"/plain",
         "HTTP/1.1 200 OK\r\nContent-Type: Application/JSON; charset=utf-8\r\nContent-Length: "
         "7\r\n\r\n{\"a\":1}"},
        {"/interim", "HTTP/1.1 103 Early\r\nContent-Type: text/html\r\n\r\nHTTP/1.1 201 Created\r\n" +
                         std::string(kJSON) + "Content-Length: 7\r\n\r\n{\"a\":1}"},
        {"/chunked",
         "HTTP/1.1 200 OK\r\nContent-Type:\r\n application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
         "3\r\n{\"a\r\n4\r\n\":1}\r\n0\r\nContent-Type: text/html\r\n\r\n"},
        {"/until-close", "HTTP/1.0 200 OK\r\n" + std::string(kJSON) + "\r\n{\"a\":1}"},
    };
    TLSServer server([&](Connection& connection) {
        if (!connection.handshake()) return;
        const std::string request = connection.readRequest();
        connection.write(answers.at(request.substr(5, request.find(' ', 5) - 5)));
    });
    const auto client = clientOf(server.address());
    for (const auto& [path, answer] : answers) {
        const Outcome outcome = performPOST(*client, path);
        EXPECT_TRUE(outcome.isSuccess()) << path << ": " << outcome;
        EXPECT_EQ(outcome.object["a"].integer(), 1) << path;
    }
}

TEST(AFHTTPSessionManagerTest, EveryFaultHasItsErrorAndNoneTellsASecret) {
    for (const test::ClientFault& fault : test::clientFaults()) {
        SCOPED_TRACE(fault.name);
        const NSErrorPtr error = fault.provoke();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), fault.domain) << *error;
        EXPECT_EQ(error->code(), fault.code) << *error;
        std::ostringstream text;
        text << *error << NSJSONSerialization::dataWithJSONObject(error->userInfo());
        EXPECT_THAT(text.str(), AllOf(HasSubstr(fault.textHolds), Not(HasSubstr(test::kSecret))));
        if (error->domain() == NSURLErrorDomain) continue;
        const auto response =
            error->userInfo()[AFNetworkingOperationFailingURLResponseErrorKey].as<NSHTTPURLResponse>();
        const bool isRefusal = error->code() == AFHTTPSessionErrorUnacceptableStatus ||
                               error->code() == AFHTTPSessionErrorUnacceptableContentType;
        EXPECT_EQ(response != nullptr, isRefusal);
        EXPECT_EQ(error->userInfo()[NSUnderlyingErrorKey].as<NSError>() != nullptr, !isRefusal);
    }
}

TEST(AFHTTPSessionManagerTest, ARefusedHeaderIsNamedAndNothingIsSent) {
    TLSServer server(answering("{}"));
    const auto client = clientOf(server.address());
    for (const char control : std::string("\r\n\t\0\x1F\x7F", 6)) {
        client->requestSerializer().setValue(std::string("value") + control, "X-Token");
        const Outcome outcome = performPOST(*client);
        EXPECT_TRUE(outcome.isFailure(AFHTTPSessionErrorDomain, AFHTTPSessionErrorHeaderRefused)) << outcome;
        const auto cause = outcome.error->userInfo()[NSUnderlyingErrorKey].as<NSError>();
        EXPECT_EQ(cause->code(), AFHTTPSessionErrorInvalidHeader);
        EXPECT_THAT(cause->localizedDescription(), AllOf(HasSubstr("X-Token"), Not(HasSubstr("value"
                                                                                             "v"))));
    }
    client->requestSerializer().setValue(std::nullopt, "X-Token");
    for (const char* const name : {"", "X Y", "X:Y", "X\r\nY", "X\xC3\xA9"}) {
        client->requestSerializer().setValue("v", name);
        EXPECT_TRUE(performPOST(*client).isFailure(AFHTTPSessionErrorDomain, AFHTTPSessionErrorHeaderRefused))
            << name;
        client->requestSerializer().setValue(std::nullopt, name);
    }
    EXPECT_EQ(server.connectionCount(), 0);
    client->requestSerializer().setValue("h\xC3\xA9", "X-Token");
    EXPECT_TRUE(performPOST(*client).isSuccess());
}

// Connections
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, AConnectionThatTheServerClosedMeanwhileIsReplaced) {
    std::promise<void> closed;
    std::atomic<int> connections = 0;
    TLSServer server([&](Connection& connection) {
        const bool isFirst = ++connections == 1;
        if (!connection.handshake() || connection.readRequest().empty() || !connection.answer("{}")) return;
        if (!isFirst) connection.readRequest();
        // The first connection ends after one answer; or, worse, when the next request is on its way.
        else if (connection.readRequest().empty())
            return;
    });
    const auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    const Outcome outcome = performPOST(*client);
    EXPECT_TRUE(outcome.isSuccess()) << outcome;
    EXPECT_EQ(server.connectionCount(), 2);
}

TEST(AFHTTPSessionManagerTest, TrustsAddedAuthoritiesFromTheNextRequestOn) {
    TLSServer server(answering("{}"));
    AFHTTPSessionManager client(NSURL::URLWithString(server.address()));
    const auto isRefused = [&] {
        return performPOST(client).isFailure(NSURLErrorDomain, NSURLErrorServerCertificateHasUnknownRoot);
    };
    EXPECT_TRUE(isRefused());
    client.addTrustedCertificateAuthority(
        sandbox::makeCertificate({.commonName = "Other", .isAuthority = true}).pem);
    EXPECT_TRUE(isRefused());
    client.addTrustedCertificateAuthority(TLSServer::certificateAuthority());
    EXPECT_TRUE(performPOST(client).isSuccess());
    client.addTrustedCertificateAuthority("no PEM");
    EXPECT_TRUE(performPOST(client).isFailure(NSURLErrorDomain, NSURLErrorSecureConnectionFailed));
}

// Callbacks and the end of a client
// -------------------------------------------------------------------------------------------------------

/// Runs tasks at once, on whatever thread hands them over.
const AFHTTPSessionManager::CompletionQueue kAtOnce = [](std::function<void()> task) { task(); };

TEST(AFHTTPSessionManagerTest, CallbacksComeOnTheCompletionQueueAndNeverInsideTheCall) {
    TLSServer server(answering("{}"));
    const auto client = clientOf(server.address());
    client->setCompletionQueue(kAtOnce);
    // The refused ones are known to fail before the call returns.
    for (const char* const path : {"token", "http://127.0.0.1/", "a\nb"}) {
        std::mutex isCalling;
        std::promise<std::thread::id> called;
        const auto note = [&](const auto& task, const auto&) {
            EXPECT_TRUE(task);
            { const std::lock_guard lock(isCalling); }  // would hang inside the call
            called.set_value(std::this_thread::get_id());
        };
        {
            const std::lock_guard lock(isCalling);
            EXPECT_TRUE(client->POST(path, {}, nullptr, note, note));
        }
        auto thread = called.get_future();
        ASSERT_EQ(thread.wait_for(10s), std::future_status::ready) << path;
        EXPECT_NE(thread.get(), std::this_thread::get_id());
    }
    client->setCompletionQueue(nullptr);
    std::thread::id thread;
    client->POST(
        "token", {}, nullptr, [&](auto&&...) { thread = std::this_thread::get_id(); }, nullptr);
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return thread != std::thread::id(); }, 10s));
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(AFHTTPSessionManagerTest, AClientMayBeDestroyedInsideItsCallbackOnAnyThread) {
    TLSServer server([](Connection& connection) {
        if (!connection.handshake()) return;
        if (connection.readRequest().starts_with("POST /stall")) connection.hold();
        connection.answer("{}");
    });
    for (const bool isAtOnce : {false, true}) {
        auto client = clientOf(server.address());
        if (isAtOnce) client->setCompletionQueue(kAtOnce);
        std::atomic<int> count = 0;
        client->POST("stall", {}, nullptr, nullptr, [&](const auto&, const NSErrorPtr& error) {
            EXPECT_EQ(error->code(), NSURLErrorCancelled);
            ++count;
        });
        client->POST(
            "token", {}, nullptr,
            [&](auto&&...) {
                client.reset();
                ++count;
            },
            nullptr);
        const auto end = Clock::now() + 10s;
        while (count < 2 && Clock::now() < end)
            MainQueue::shared().runFor(5ms);
        EXPECT_EQ(count, 2);
    }
}

TEST(AFHTTPSessionManagerTest, EveryRequestHasOneCallbackUnderLoadAndDestruction) {
    TLSServer server(answering("{}"));
    for (const bool isDestroyedEarly : {false, true}) {
        constexpr int kThreads = 4;
        constexpr int kRequests = 50;
        auto client = clientOf(server.address());
        std::vector<std::atomic<int>> callbacks(kThreads * kRequests);
        std::atomic<int> count = 0;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, thread] {
                for (int request = 0; request < kRequests; ++request) {
                    const auto note =
                        [&, index = static_cast<std::size_t>(thread * kRequests + request)](auto&&...) {
                            ++callbacks[index];
                            ++count;
                        };
                    client->POST("token", {}, nullptr, note, note);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        if (isDestroyedEarly) client.reset();
        EXPECT_TRUE(MainQueue::shared().runUntil([&] { return count == kThreads * kRequests; }, 60s));
        client.reset();
        MainQueue::shared().drain();
        EXPECT_TRUE(std::ranges::all_of(callbacks, [](const auto& number) { return number == 1; }));
    }
}

}  // namespace
}  // namespace zembra
