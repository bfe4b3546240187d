// What the HTTP client promises about time. No other test runs beside these.

#include <array>
#include <latch>

#include <gmock/gmock.h>

#include "support/HangingResolver.h"
#include "support/POSTResult.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

using namespace testing;

TEST(AFHTTPSessionManagerTimeTest, FailsWhenNothingMovedForTheTimeoutInEveryPhase) {
    constexpr auto kLimit = 2000ms;
    constexpr auto kTolerance = 500ms;
    const std::string status = "HTTP/1.1 200 OK\r\n", length = kJSON + "Content-Length: 9\r\n\r\n"s;
    std::list<TLSServer> servers;
    const auto at = [&](Script script) { return servers.emplace_back(std::move(script)).address(); };
    /// A server that answers in pieces, with that time before each, and then no more.
    const auto atPieces = [&](std::chrono::milliseconds pause, std::vector<std::string> pieces) {
        return at([=](Connection& connection) {
            connection.readRequest();
            for (const std::string& piece : pieces)
                if (!connection.wait(pause) || !connection.write(piece)) return;
            connection.hold();
        });
    };

    const std::string unaccepting = at(nullptr), warmUp = at(answering());

    struct Request {
        const char* phase;
        std::string address;
        const char* text;  // of the error; a request without one comes to its end
        std::chrono::milliseconds lastMove = 0ms;
        std::string value = {};  // to send
        Clock::time_point start = {}, isStarted = {}, end = {};
        POSTResultPtr result = nullptr;
    } requests[] = {
        {"sending", at(&Connection::stall), "sending", 0ms, std::string(std::size_t{8} << 20, 'x')},
        {"resolving", "https://"s + kHangingHost + '/', "looking up the host"},
        {"TLS", at(&Connection::hold), "secure connection"},
        {"unaccepted", unaccepting, "connect"},  // one of the two has a connection, the other none
        {"unconnected", unaccepting, "connect"},
        {"slow TLS", at([](Connection& connection) {
             connection.slowHandshakeDown();
             answering()(connection);
         }),
         nullptr},
        {"waiting", atPieces(0ms, {}), "waiting"},
        {"body stops at 0 s", atPieces(0ms, {status + length + "1"}), "receiving"},
        {"body stops at 1 s", atPieces(500ms, {status + length, " "}), "receiving", 1s},
        {"header stops at 1 s", atPieces(1s, {status + "X-"}), "receiving", 1s},
        {"body drips", atPieces(700ms, {status + length, " ", " ", " ", "123456"}), nullptr},
        {"header drips", atPieces(700ms, {status + "X-Slow:", " ", " ", " ", "\r\n" + length + "123456789"}),
         nullptr},
    };
    const auto client = clientOf(warmUp);
    const auto other = clientOf(warmUp);  // one alone takes eight requests at once
    for (auto* const each : {client.get(), other.get()}) {
        EXPECT_TRUE(performPOST(*each).isSuccess());  // the certificates are read before the clocks start
        each->requestSerializer().setTimeoutInterval(kLimit);
    }
    for (Request& request : requests) {
        const bool isEven = (&request - requests) % 2 == 0;
        request.start = Clock::now();
        request.result =
            startPOST(isEven ? *client : *other, request.address, Value::dictionary({{"v", request.value}}));
        request.isStarted = Clock::now();  // and its body encoded
    }
    const auto isDone = [](Request& request) {
        const bool hasEnded = request.result->callbacks > 0;
        if (hasEnded && request.end == Clock::time_point()) request.end = Clock::now();
        return hasEnded;
    };
    const auto areDone = [&] { return std::ranges::count_if(requests, isDone) == std::ssize(requests); };
    EXPECT_TRUE(MainQueue::shared().runUntil(areDone, 20s));
    std::string texts;
    for (const auto& [phase, address, text, lastMove, value, start, isStarted, end, result] : requests) {
        SCOPED_TRACE(phase);
        EXPECT_GE(end - start, lastMove + kLimit);
        if (!text) {
            EXPECT_TRUE(result->isSuccess()) << *result;
            continue;
        }
        ASSERT_TRUE(result->isFailure(NSURLErrorTimedOut)) << *result;
        EXPECT_THAT(result->error->localizedDescription(), HasSubstr(text));
        if (address == unaccepting) texts += result->error->localizedDescription();
        EXPECT_LT(end - isStarted, lastMove + kLimit + kTolerance);
    }
    EXPECT_THAT(texts, AllOf(HasSubstr("while connecting"), HasSubstr("while negotiating")));
}

/// A listener with one connection waiting: it makes no other, and answers none.
std::array<std::unique_ptr<BIO, decltype(&::BIO_free_all)>, 2> silentListener(const std::string& address) {
    std::array<std::unique_ptr<BIO, decltype(&::BIO_free_all)>, 2> both{
        {{::BIO_new_accept(address.c_str()), &::BIO_free_all},
         {::BIO_new_connect(address.c_str()), &::BIO_free_all}}};
    BIO* const listener = both[0].get();
    ::BIO_set_bind_mode(listener, BIO_SOCK_REUSEADDR);
    if (BIO_do_accept(listener) != 1) std::abort();
    ::listen(static_cast<int>(BIO_get_fd(listener, nullptr)), 0);
    if (BIO_do_connect(both[1].get()) != 1) std::abort();
    return both;
}

TEST(AFHTTPSessionManagerTimeTest, AHostIsReachedWhoseFirstAddressesDoNotAnswer) {
    TLSServerOptions options;
    for (const auto& host : kHostsOfSeveralAddresses)
        options.names.push_back("DNS:"s + host.name);
    const TLSServer server(answering(), options);
    const std::string address = server.address();
    const std::string port = address.substr(address.rfind(':'), address.size() - address.rfind(':') - 1);
    const auto second = silentListener("127.0.0.2" + port), third = silentListener("127.0.0.3" + port),
               ipv6 = silentListener("[::1]" + port);
    const auto client = clientOf(address);
    client->requestSerializer().setTimeoutInterval(3s);
    std::vector<POSTResultPtr> results;
    for (const auto& host : kHostsOfSeveralAddresses)
        results.push_back(startPOST(*client, server.address(host.name)));
    for (const auto& result : results)
        EXPECT_TRUE(await(result).isSuccess()) << *result;
}

TEST(AFHTTPSessionManagerTimeTest, RequestsThatWaitForAConnectionDoNotAge) {
    std::atomic<int> underWay = 0, most = 0;
    const TLSServer server([&](Connection& connection) {
        while (!connection.readRequest().empty()) {
            if (const int now = ++underWay; now > most) most = now;
            connection.wait(500ms);
            --underWay;
            connection.answer();
        }
    });
    const auto client = clientOf(server.address());
    client->requestSerializer().setTimeoutInterval(2s);
    std::vector<POSTResultPtr> results(38);
    std::ranges::generate(results, [&] { return startPOST(*client); });
    for (const double noLimit : {0.0, -1.0, 1e18}) {
        client->requestSerializer().setTimeoutInterval(NSTimeInterval(noLimit));
        results.push_back(startPOST(*client));
    }
    for (const auto& result : results)
        EXPECT_TRUE(await(result).isSuccess()) << *result;
    EXPECT_EQ(most, 8);
}

TEST(AFHTTPSessionManagerTimeTest, ReadingTheAuthoritiesIsNoIdleTime) {
    const TLSServer server;
    std::string many;  // each one takes a while to read
    for (int count = 0; count < 3'000; ++count)
        many += TLSServer::certificateAuthority();
    const auto timeOf = [&](NSTimeInterval timeout) {
        const auto client = clientOf(server.address());
        client->addTrustedCertificateAuthority(many);
        client->requestSerializer().setTimeoutInterval(timeout);
        const auto start = Clock::now();
        const POSTResult result = performPOST(*client);
        EXPECT_TRUE(result.isSuccess()) << result;
        return Clock::now() - start;
    };
    const NSTimeInterval reading = timeOf(20s);  // and little else
    timeOf(reading / 4);
}

TEST(AFHTTPSessionManagerTimeTest, DestroyingAClientIsQuickAndCancelsItsRequests) {
    for (const std::string& first : {"token"s, "https://"s + kHangingHost + '/'}) {
        std::latch areStalled(8);
        const TLSServer server([&](Connection& connection) {
            connection.readRequest();
            areStalled.count_down();
            connection.hold();
        });
        auto client = clientOf(server.address());
        std::vector<POSTResultPtr> results = {startPOST(*client, first)};
        if (first != "token") areStalled.count_down();  // that one resolves, by and by
        for (int count = 0; count < 9; ++count)         // seven stall as well, two wait for a connection
            results.push_back(startPOST(*client));
        areStalled.wait();
        // For the client's thread to come to rest, which nothing tells from outside.
        std::this_thread::sleep_for(50ms);
        const auto start = Clock::now();
        client.reset();
        EXPECT_LT(Clock::now() - start, 100ms) << first;
        for (const auto& result : results)
            EXPECT_TRUE(await(result).isFailure(NSURLErrorCancelled)) << *result;
    }
}

}  // namespace
}  // namespace zembra::test
