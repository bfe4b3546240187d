#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <span>

#include <gmock/gmock.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "support/ClientFaults.h"
#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

using namespace testing;

/// Runs tasks at once, on the thread that hands them over, and has the main queue look at what came of it.
const AFHTTPSessionManager::CompletionQueue kAtOnce = [](const std::function<void()>& task) {
    task();
    MainQueue::shared().post([] {});
};

// What is sent
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, SendsFormsWithTheHeadersAsTheyStoodAtTheCallAndReportsProgress) {
    std::vector<std::string> requests;
    const TLSServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty(); connection.answer())
            requests.push_back(request);
    });
    const auto client = clientOf(server.address("localhost") + "api/v1/");
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

    const std::string value(std::size_t{2} << 20, 'x');
    std::vector<std::int64_t> reports;
    bool isDone = false;
    const auto note = [&](std::int64_t bytesSent, std::int64_t total) {
        EXPECT_FALSE(isDone);
        EXPECT_EQ(total, std::ssize(value) + 2);
        reports.push_back(bytesSent);
    };
    client->POST(
        "token", Value::dictionary({{"v", value}}), note, [&](auto&&...) { isDone = true; }, nullptr);
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return isDone; }, 10s));
    EXPECT_TRUE(std::ranges::is_sorted(reports));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), std::ssize(value) + 2);

    EXPECT_THAT(
        requests,
        ElementsAre(AllOf(StartsWith("POST /api/v1/app/token HTTP/1.1\r\n"),
                          HasSubstr("\r\nAuthorization: Bearer one\r\n"), HasSubstr("\r\nX-Empty:\r\n"),
                          HasSubstr("\r\nContent-Type: application/x-www-form-urlencoded\r\n"),
                          HasSubstr("\r\nUser-Agent: AFHTTPSessionManagerTests (Linux "),
                          EndsWith("\r\n\r\nname=a%20b%26c%3Dd%2F%C3%A9~&empty=&count=7")),
                    AllOf(StartsWith("POST /other?x=1 HTTP/1.1\r\n"), Not(HasSubstr("User-Agent")),
                          Not(HasSubstr("Authorization")), HasSubstr("\r\ncontent-type: text/plain\r\n"),
                          HasSubstr("\r\nContent-Length: 0\r\n")),
                    AllOf(EndsWith("\r\n\r\nv=" + value), Not(HasSubstr("Expect")))));
    EXPECT_EQ(server.connectionCount(), keepsConnections() ? 1 : 3);
}

// What is answered
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, ReadsAnswersInEveryForm) {
    const std::string okay = "HTTP/1.1 200 OK\r\n", body = "{\"a\":1}";
    for (const std::string& answer : {
             okay + "Content-Type: Application/JSON; charset=utf-8\r\nContent-Length: 7\r\n\r\n" + body,
             "HTTP/1.1 103 Early\r\nContent-Type: text/html\r\n\r\n" + okay + kJSON +
                 "Content-Length: 7\r\n\r\n" + body,
             okay + "Content-Type:\r\n application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "3\r\n{\"a\r\n4\r\n\":1}\r\n0\r\nContent-Type: text/html\r\n\r\n",
             "HTTP/1.0 201 Created\r\n"s + kJSON + "\r\n" + body,
         }) {
        const TLSServer server([&](Connection& connection) {
            saying(answer)(connection);
            connection.closeTLS();
        });
        const Outcome outcome = performPOST(*clientOf(server.address()));
        EXPECT_TRUE(outcome.isSuccess()) << answer << outcome;
        EXPECT_EQ(outcome.object["a"].integer(), 1) << answer;
    }
}

TEST(AFHTTPSessionManagerTest, EveryFaultHasItsErrorAndNoneTellsASecret) {
    for (const ClientFault& fault : clientFaults()) {
        SCOPED_TRACE(fault.name);
        const NSErrorPtr error = fault.provoke();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain(), fault.domain) << *error;
        EXPECT_EQ(error->code(), fault.code) << *error;
        EXPECT_THAT(PrintToString(*error) + NSJSONSerialization::dataWithJSONObject(error->userInfo()),
                    AllOf(HasSubstr(fault.textHolds), Not(HasSubstr(kSecret))));
    }
}

TEST(AFHTTPSessionManagerTest, ARefusedHeaderIsNamedAndNothingIsSent) {
    const TLSServer server;
    const auto client = clientOf(server.address());
    const auto causeOfRefusal = [&](const std::string& name, const std::string& value) {
        client->requestSerializer().setValue(value, name);
        const Outcome outcome = performPOST(*client);
        client->requestSerializer().setValue(std::nullopt, name);
        EXPECT_TRUE(outcome.isFailure(AFHTTPSessionErrorDomain, AFHTTPSessionErrorHeaderRefused)) << name;
        EXPECT_THAT(outcome.error->localizedDescription(), Not(HasSubstr(kSecret)));
        const auto cause = outcome.error->userInfo()[NSUnderlyingErrorKey].as<NSError>();
        EXPECT_EQ(cause->code(), AFHTTPSessionErrorInvalidHeader);
        return cause->localizedDescription();
    };
    for (const char control : "\r\n\t\x1F\x7F")  // and a zero byte
        EXPECT_THAT(causeOfRefusal("X-Token", kSecret + std::string(1, control)),
                    AllOf(HasSubstr("value"), HasSubstr("X-Token"), Not(HasSubstr(kSecret))));
    for (const char* const name : {"", "X Y", "X:Y", "X\r\nY", "X\xC3\xA9", "X\x01"})
        EXPECT_THAT(causeOfRefusal(name, kSecret), AllOf(HasSubstr("name"), Not(HasSubstr(kSecret))));
    EXPECT_EQ(server.connectionCount(), 0);
    client->requestSerializer().setValue("h\xC3\xA9", "X-Token");
    EXPECT_TRUE(performPOST(*client).isSuccess());
}

// Connections
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, AConnectionThatTheServerClosedMeanwhileIsReplaced) {
    std::latch isClosed(1);
    const TLSServer server([&](Connection& connection) {
        connection.readRequest();
        connection.answer();
        connection.closeTLS();
        if (!isClosed.try_wait()) isClosed.count_down();
    });
    const auto client = clientOf(server.address());
    EXPECT_TRUE(performPOST(*client).isSuccess());
    isClosed.wait();
    const Outcome outcome = performPOST(*client);
    EXPECT_TRUE(outcome.isSuccess()) << outcome;
    EXPECT_EQ(server.connectionCount(), 2);
}

TEST(AFHTTPSessionManagerTest, ARequestIsSentOnceAndALostConnectionIsTheCallersFailure) {
    const std::pair<const char*, std::function<void(Connection&)>> ends[] = {
        {"closed", [](Connection&) {}},
        {"reset", [](Connection& connection) { connection.reset(); }},
        {"cut", [](Connection& connection) { connection.write("HTTP/1.1 200 OK\r\n"); }},
    };
    for (const auto& [end, endConnection] : ends) {
        for (const std::size_t size : {0u, 10u, 1u << 20}) {
            for (const bool isFirst : {true, false}) {
                SCOPED_TRACE(end + (" after " + std::to_string(size)) + (isFirst ? " first" : " then"));
                std::atomic<int> requests = 0;
                const TLSServer server([&, &endConnection = endConnection](Connection& connection) {
                    while (true) {
                        const std::string request = connection.readRequest();
                        if (request.starts_with("POST /lost")) {
                            ++requests;
                            return endConnection(connection);
                        }
                        if (request.empty() || !connection.answer()) return;
                    }
                });
                const auto client = clientOf(server.address());
                EXPECT_TRUE(isFirst || performPOST(*client).isSuccess());
                const Value form = Value::dictionary({{"v", std::string(size, 'x')}});
                const Outcome outcome = performPOST(*client, "lost", size == 0 ? Value() : form);
                EXPECT_TRUE(outcome.isFailure(NSURLErrorDomain, NSURLErrorNetworkConnectionLost)) << outcome;
                EXPECT_EQ(requests, 1);
            }
        }
    }
}

TEST(AFHTTPSessionManagerTest, NoRequestGetsAnothersAnswer) {
    const std::string okay = "HTTP/1.1 200 OK\r\n"s + kJSON;
    const std::string stolen = okay + "Content-Length: 18\r\n\r\n{\"token\":\"stolen\"}";
    std::string answer, more;
    std::chrono::milliseconds pause = 0ms;
    bool isSeparate = false;
    std::atomic<int> written = 0;
    const TLSServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty();) {
            if (request.starts_with("POST /own")) {
                connection.answer("{\"token\":\"own\"}");
                continue;
            }
            connection.write(isSeparate ? answer : answer + more);
            if (isSeparate && connection.wait(pause)) connection.write(more);
            written = written + 1;
            written.notify_all();
        }
    });
    const auto client = clientOf(server.address());
    int round = 0;
    for (const std::string& first : {
             okay + "Content-Length: 2\r\n\r\n{}",
             okay + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
             okay + "Content-Length: 0\r\n\r\n", "HTTP/1.1 204 Nothing\r\n\r\n"s,
             "HTTP/1.1 304 Same\r\n\r\n"s,
             "HTTP/1.1 200 OK\r\n X: y\r\nContent-Length: 0\r\n\r\n"s,  // crashed libcurl 7.88 on a used
                                                                        // handle
         }) {
        for (const std::string& unasked : {stolen, "x"s, "HTTP/1.1 408 Late\r\nContent-Length: 0\r\n\r\n"s}) {
            for (const auto time : {-1ms, 0ms, 30ms}) {
                SCOPED_TRACE(first + unasked + std::to_string(time.count()));
                answer = first;
                more = unasked;
                isSeparate = time >= 0ms;
                pause = time;
                EXPECT_EQ(performPOST(*client, "first").callbacks, 1);
                written.wait(round++);
                const Outcome own = performPOST(*client, "own");
                EXPECT_TRUE(own.isSuccess() ? own.object["token"] == Value("own") : keepsConnections())
                    << own;
            }
        }
    }
}

TEST(AFHTTPSessionManagerTest, TrustsAddedAuthoritiesFromTheNextRequestOn) {
    const TLSServer server;
    AFHTTPSessionManager client(NSURL::URLWithString(server.address()));
    const auto isRefused = [&](NSInteger code) {
        return performPOST(client).isFailure(NSURLErrorDomain, code);
    };
    // OpenSSL's own variable is none of the SDK's.
    const std::string file = TempDir() + "AFHTTPSessionManagerTests.pem";
    std::ofstream(file) << TLSServer::certificateAuthority();
    ::setenv("SSL_CERT_FILE", file.c_str(), 1);
    EXPECT_TRUE(isRefused(NSURLErrorServerCertificateHasUnknownRoot));
    const auto other = sandbox::makeCertificate({.commonName = "Other", .isAuthority = true});
    client.addTrustedCertificateAuthority(other.pem);
    EXPECT_TRUE(isRefused(NSURLErrorServerCertificateHasUnknownRoot));
    client.addTrustedCertificateAuthority(TLSServer::certificateAuthority());
    EXPECT_TRUE(performPOST(client).isSuccess());
    client.addTrustedCertificateAuthority(other.pem);
    EXPECT_TRUE(performPOST(client).isSuccess()) << "the earlier ones stay";
    client.addTrustedCertificateAuthority("no PEM");
    EXPECT_TRUE(isRefused(NSURLErrorSecureConnectionFailed));
}

// Callbacks and the end of a client
// -------------------------------------------------------------------------------------------------------

TEST(AFHTTPSessionManagerTest, CallbacksComeOnTheCompletionQueueAndNeverInsideTheCall) {
    const TLSServer server;
    const auto client = clientOf(server.address());
    for (const auto& queue : {AFHTTPSessionManager::CompletionQueue(), kAtOnce}) {
        client->setCompletionQueue(queue);
        // The refused ones are known to fail before the call returns.
        for (const char* const path : {"token", "http://127.0.0.1/", "a\nb"}) {
            std::atomic<std::thread::id> thread;
            const auto note = [&](const auto& task, const auto&) {
                EXPECT_TRUE(task);
                thread = std::this_thread::get_id();
            };
            EXPECT_TRUE(client->POST(path, {}, nullptr, note, note));
            EXPECT_NE(thread.load(), std::this_thread::get_id()) << "inside the call, " << path;
            EXPECT_TRUE(
                MainQueue::shared().runUntil([&] { return thread.load() != std::thread::id(); }, 10s));
            EXPECT_EQ(thread.load() == std::this_thread::get_id(), !queue) << path;
        }
    }
}

TEST(AFHTTPSessionManagerTest, AClientMayBeDestroyedInsideItsCallbackOnAnyThread) {
    const TLSServer server([](Connection& connection) {
        if (connection.readRequest().starts_with("POST /stall")) connection.hold();
        connection.answer();
    });
    for (const auto& queue : {AFHTTPSessionManager::CompletionQueue(), kAtOnce}) {
        auto client = clientOf(server.address());
        const auto stalled = startPOST(*client, "stall");
        client->setCompletionQueue(queue);
        client->POST(
            "token", {}, nullptr, [&](auto&&...) { client.reset(); }, nullptr);
        EXPECT_TRUE(await(stalled).isFailure(NSURLErrorDomain, NSURLErrorCancelled)) << *stalled;
        EXPECT_FALSE(client);
    }
}

TEST(AFHTTPSessionManagerTest, EveryRequestHasOneCallbackUnderLoadAndDestruction) {
    const TLSServer server;
    for (const bool isDestroyedEarly : {false, true}) {
        constexpr std::size_t kThreads = 4, kRequests = 50;
        auto client = clientOf(server.address());
        std::vector<int> callbacks(kThreads * kRequests);
        std::vector<std::jthread> threads;
        for (std::size_t thread = 0; thread < kThreads; ++thread) {
            threads.emplace_back([&, own = std::span(callbacks).subspan(thread * kRequests, kRequests)] {
                for (int& count : own) {
                    const auto note = [&count](auto&&...) { ++count; };
                    client->POST("token", {}, nullptr, note, note);
                }
            });
        }
        threads.clear();
        if (isDestroyedEarly) client.reset();
        EXPECT_TRUE(MainQueue::shared().runUntil([&] { return !std::ranges::count(callbacks, 0); }, 60s));
        client.reset();
        MainQueue::shared().drain();
        EXPECT_THAT(callbacks, Each(1));
    }
}

}  // namespace
}  // namespace zembra::test
