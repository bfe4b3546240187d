// What the HTTP client sends, reads and tells its callers. Its faults have a file of their own.

#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>

#include "support/POSTResult.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

using namespace testing;

/// Runs tasks at once, on the thread that hands them over, and has the main queue look at what came of it.
const AFHTTPSessionManager::CompletionQueue kAtOnce = [](const std::function<void()>& task) {
    task();
    MainQueue::shared().post([] {});
};

TEST(AFHTTPSessionManagerTest, SendsFormsWithTheHeadersAsTheyStoodAtTheCallAndReportsProgress) {
    std::vector<std::string> requests;
    std::atomic<bool> isReported = false;
    const TLSServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty(); connection.answer()) {
            requests.push_back(request);
            while (requests.size() == 3 && !isReported && connection.wait(10ms)) {
            }
        }
    });
    const auto client = clientOf(server.address("localhost") + "api/v1/");
    auto& serializer = client->requestSerializer();
    serializer.setValue("Bearer one", "Authorization");
    serializer.setValue("", "X-Empty");
    serializer.setValue("12", "Content-Length");
    serializer.setValue("chunked", "Transfer-Encoding");
    const auto first = startPOST(*client, "app/token",
                                 Value::dictionary({{"name", "a b&c=d/é~"}, {"empty", ""}, {"count", 7}}));
    serializer.setValue(std::nullopt, "authorization");
    serializer.setValue(std::nullopt, "User-Agent");
    serializer.setValue("text/plain", "content-type");
    EXPECT_TRUE(await(first).isSuccess()) << *first;
    EXPECT_TRUE(performPOST(*client, "/other?x=1").isSuccess());

    const std::string value(std::size_t{2} << 20, 'x');
    const std::int64_t size = std::ssize(value) + 2;
    std::vector<std::int64_t> reports;
    const auto post = [&](bool& isDone) {
        const auto note = [&](std::int64_t bytesSent, std::int64_t total) {
            EXPECT_FALSE(isDone);
            EXPECT_EQ(total, size);
            reports.push_back(bytesSent);
            isReported = true;  // before the answer
        };
        const auto end = [&](auto&&...) { isDone = true; };
        client->POST("token", Value::dictionary({{"v", value}}), note, end, nullptr);
    };
    bool isDone = false, isSecondDone = false;
    post(isDone);
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return isDone; }, 10s));
    EXPECT_TRUE(std::ranges::is_sorted(reports));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), size);

    std::atomic<int> waiting = 0;  // on a queue that nobody works off: one report, and the end
    client->setCompletionQueue([&](auto&&) {
        ++waiting;
        MainQueue::shared().post([] {});
    });
    post(isSecondDone);
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return waiting >= 2; }, 10s));
    EXPECT_EQ(requests.size(), 4u);
    EXPECT_EQ(waiting, 2);

    const auto isBig = AllOf(EndsWith("\r\n\r\nv=" + value), Not(HasSubstr("Expect")));
    EXPECT_THAT(
        requests,
        ElementsAre(AllOf(StartsWith("POST /api/v1/app/token HTTP/1.1\r\n"),
                          HasSubstr("\r\nAuthorization: Bearer one\r\n"), HasSubstr("\r\nX-Empty:\r\n"),
                          HasSubstr("\r\nContent-Type: application/x-www-form-urlencoded\r\n"),
                          HasSubstr("\r\nAccept: application/json\r\n"), Not(HasSubstr("chunked")),
                          HasSubstr("\r\nUser-Agent: AFHTTPSessionManagerTests (Linux "),
                          EndsWith("\r\n\r\nname=a%20b%26c%3Dd%2F%C3%A9~&empty=&count=7")),
                    AllOf(StartsWith("POST /other?x=1 HTTP/1.1\r\n"), Not(HasSubstr("User-Agent")),
                          Not(HasSubstr("Authorization")), HasSubstr("\r\ncontent-type: text/plain\r\n"),
                          HasSubstr("\r\nContent-Length: 0\r\n")),
                    isBig, isBig));
    EXPECT_EQ(server.connectionCount(), 4);
}

TEST(AFHTTPSessionManagerTest, ReadsAnswersInEveryForm) {
    const std::string okay = "HTTP/1.1 200 OK\r\n", body = "{\"a\":1}";
    for (const std::string& answer : {
             okay + "Content-Type: Application/JSON; charset=utf-8\r\nContent-Length: 7\r\n\r\n" + body,
             "HTTP/1.1 103 Early\r\nContent-Type: text/html\r\n\r\n" + okay + kJSON +
                 "Content-Length: 7\r\n\r\n" + body,
             okay + "Content-Type:\r\n application/json\r\nTransfer-Encoding: chunked\r\n\r\n"
                    "3\r\n{\"a\r\n4\r\n\":1}\r\n0\r\nContent-Type: text/html\r\n\r\n",
             "HTTP/1.0 201 Created\r\n"s + kJSON + "\r\n" + body,
             okay + kJSON + "\r\n[" + body + "]",
         }) {
        const TLSServer server([&](Connection& connection) {
            connection.readRequest();
            connection.write(answer);
            connection.closeTLS();
        });
        const POSTResult result = performPOST(*clientOf(server.address()));
        EXPECT_TRUE(result.isSuccess()) << answer << result;
        const Value& object = result.object;
        EXPECT_EQ((object.isArray() ? object[0] : object)["a"], Value(1)) << answer;
    }
}

TEST(AFHTTPSessionManagerTest, ARequestIsSentOnceAndALostConnectionIsTheCallersFailure) {
    const std::pair<const char*, Script> ends[] = {
        {"closed", [](Connection&) {}},
        {"reset", [](Connection& connection) { connection.reset(); }},
        {"cut", [](Connection& connection) { connection.write("HTTP/1.1 200 OK\r\n"); }},
    };
    for (const auto& [name, end] : ends) {
        for (const std::size_t size : {0u, 1u << 20}) {
            for (const bool isFirst : {true, false}) {
                SCOPED_TRACE(name + (" after " + std::to_string(size)) + (isFirst ? " first" : " then"));
                std::atomic<int> requests = 0;
                const TLSServer server([&, &script = end](Connection& connection) {
                    std::string request = connection.readRequest();
                    for (; request.starts_with("POST /token"); request = connection.readRequest())
                        connection.answer();
                    if (request.empty()) return;
                    ++requests;
                    script(connection);
                });
                const auto client = clientOf(server.address());
                EXPECT_TRUE(isFirst || performPOST(*client).isSuccess());
                const POSTResult result =
                    performPOST(*client, "lost", Value::dictionary({{std::string(size, 'x'), ""}}));
                EXPECT_TRUE(result.isFailure(NSURLErrorNetworkConnectionLost)) << result;
                EXPECT_EQ(requests, 1);
            }
        }
    }
}

TEST(AFHTTPSessionManagerTest, NoRequestGetsAnothersAnswer) {
    const std::string okay = "HTTP/1.1 200 OK\r\n"s + kJSON;
    std::string byBytes, answer, more;      // the first of them in a TLS record for each byte
    std::chrono::milliseconds pause = 0ms;  // between the other two; none below 0
    std::atomic<int> written = 0;
    const TLSServer server([&](Connection& connection) {
        for (std::string request; !(request = connection.readRequest()).empty();) {
            if (request.starts_with("POST /own")) {
                connection.answer("{\"token\":\"own\"}");
                continue;
            }
            for (const char byte : byBytes)
                connection.write({&byte, 1});
            connection.write(pause < 0ms ? answer + more : answer);
            if (pause >= 0ms && connection.wait(pause)) connection.write(more);
            ++written;
            written.notify_all();
        }
    });
    const auto client = clientOf(server.address());
    int round = 0;
    for (const std::string& first : {
             okay + "Content-Length: 2\r\n\r\n{}",
             okay + "Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
             okay + "Content-Length: 0\r\n\r\n",
             "HTTP/1.1 204 Nothing\r\n\r\n"s,
             "HTTP/1.1 304 Same\r\n\r\n"s,
             // crashed libcurl 7.88 on a used handle
             "HTTP/1.1 200 OK\r\n X: y\r\nContent-Length: 0\r\n\r\n"s,
         }) {
        for (const std::string& unasked : {okay + "Content-Length: 18\r\n\r\n{\"token\":\"stolen\"}", "x"s,
                                           "HTTP/1.1 408 Late\r\nContent-Length: 0\r\n\r\n"s}) {
            for (const auto time : {-1ms, 0ms, 30ms}) {
                for (const std::size_t dribbled : {std::size_t{0}, first.size() - 1}) {
                    SCOPED_TRACE(first + unasked + std::to_string(time.count()));
                    byBytes = first.substr(0, dribbled);
                    answer = first.substr(dribbled);
                    more = unasked;
                    pause = time;
                    EXPECT_EQ(performPOST(*client, "first").callbacks, 1);
                    written.wait(round++);
                    const POSTResult own = performPOST(*client, "own");
                    EXPECT_EQ(own.object["token"], Value("own")) << own;
                }
            }
        }
    }
}

TEST(AFHTTPSessionManagerTest, TrustsAddedAuthoritiesFromTheNextRequestOn) {
    // OpenSSL's own variable is none of the SDK's.
    const std::string file = TempDir() + "AFHTTPSessionManagerTests.pem";
    std::ofstream(file) << TLSServer::certificateAuthority();
    ::setenv("SSL_CERT_FILE", file.c_str(), 1);
    const TLSServer server;
    AFHTTPSessionManager client(NSURL::URLWithString(server.address()));
    EXPECT_TRUE(performPOST(client).isFailure(NSURLErrorServerCertificateHasUnknownRoot));
    const auto other = sandbox::makeCertificate({.commonName = "Other", .isAuthority = true});
    for (const std::string& right : {TLSServer::certificateAuthority(), other.pem}) {
        client.addTrustedCertificateAuthority(right);  // and the earlier ones stay
        EXPECT_TRUE(performPOST(client).isSuccess());
    }
    for (const std::string& added : {"no PEM"s, other.pem}) {
        client.addTrustedCertificateAuthority(added);
        EXPECT_TRUE(performPOST(client).isFailure(NSURLErrorSecureConnectionFailed));
    }
}

TEST(AFHTTPSessionManagerTest, CallbacksComeOnTheCompletionQueueAndNeverInsideTheCall) {
    const TLSServer server;
    const auto client = clientOf(server.address());
    for (const auto& queue : {AFHTTPSessionManager::CompletionQueue(), kAtOnce}) {
        client->setCompletionQueue(queue);
        // The refused ones are known to fail before the call returns.
        for (const char* const path : {"token", "http://127.0.0.1/", "a\nb"}) {
            std::atomic<std::thread::id> thread;
            const auto note = [&](const auto&...) { thread = std::this_thread::get_id(); };
            const auto silent = client->POST(path, {}, nullptr, nullptr, nullptr);
            const auto task = client->POST(path, {}, nullptr, note, note);
            EXPECT_NE(task->taskIdentifier(), silent->taskIdentifier());
            EXPECT_THAT(task->originalURL().absoluteString(), EndsWith(path));
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
        EXPECT_TRUE(await(stalled).isFailure(NSURLErrorCancelled)) << *stalled;
        EXPECT_FALSE(client);
    }
}

TEST(AFHTTPSessionManagerTest, AProxysAnswerIsNotTheServers) {
    const TLSServer server([](Connection& connection) {  // both at once
        char request[4096];
        ::recv(connection.descriptor, request, sizeof request, 0);
        const std::string opened = "HTTP/1.1 200 Opened\r\nX: y\r\n\r\n";
        ::send(connection.descriptor, opened.data(), opened.size(), 0);
        answering()(connection);
    });
    ::setenv("https_proxy", ("http" + server.address().substr(5)).c_str(), 1);
    const POSTResult result = performPOST(*clientOf(server.address()));
    EXPECT_TRUE(result.isSuccess()) << result;
}

TEST(AFHTTPSessionManagerTest, EveryRequestHasOneCallbackUnderLoadAndDestruction) {
    const TLSServer prompt, silent(&Connection::hold);
    for (const TLSServer* const server : {&prompt, &silent}) {
        auto client = clientOf(server->address());
        std::vector<POSTResultPtr> results(200);
        std::vector<std::jthread> threads;
        for (std::size_t first = 0; first < 4; ++first)
            threads.emplace_back([&, first] {
                for (std::size_t index = first; index < results.size(); index += 4)
                    results[index] = startPOST(*client);
            });
        threads.clear();
        results.push_back(startPOST(*client));
        if (server == &silent) client.reset();
        for (const POSTResultPtr& result : results)
            EXPECT_TRUE(await(result).isSuccess() || !client) << *result;
        client.reset();
        MainQueue::shared().drain();
        for (const POSTResultPtr& result : results)
            EXPECT_EQ(result->callbacks, 1);
    }
}

}  // namespace
}  // namespace zembra::test
