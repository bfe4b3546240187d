// What the HTTP client promises about time. No other test runs beside these.
#include <algorithm>
#include <latch>
#include <list>

#include <gtest/gtest.h>

#include <ZembraPlatform/MainQueue.h>

#include "support/HangingResolver.h"
#include "support/Outcome.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

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
        std::chrono::milliseconds due;  // from the start to the timeout; 0 where there is none
        std::string value = {};         // to send
        Clock::time_point start = {};
        Clock::duration elapsed = {};
        OutcomePtr outcome = nullptr;
    } requests[] = {
        {"sending", at(&Connection::stall), kLimit, std::string(std::size_t{8} << 20, 'x')},
        {"resolving", "https://"s + kHangingHost + '/', kLimit},
        {"TLS, unaccepted", unaccepting, kLimit},
        {"connecting", unaccepting, kLimit},
        {"connecting as well", unaccepting, kLimit},
        {"slow TLS", at([](Connection& connection) {
             connection.slowHandshakeDown();
             answering()(connection);
         }),
         0ms},
        {"waiting", atPieces(0ms, {}), kLimit},
        {"body stops at 0 s", atPieces(0ms, {status + length + "1"}), kLimit},
        {"body stops at 1 s", atPieces(500ms, {status + length, " "}), 1s + kLimit},
        {"header stops at 1 s", atPieces(1s, {status + "X-"}), 1s + kLimit},
        {"body drips", atPieces(700ms, {status + length, " ", " ", " ", "123456"}), 0ms},
        {"header drips", atPieces(700ms, {status + "X-Slow:", " ", " ", " ", "\r\n" + length + "123456789"}),
         0ms},
    };
    const std::unique_ptr<AFHTTPSessionManager> clients[] = {clientOf(warmUp), clientOf(warmUp)};
    for (const auto& client : clients) {
        EXPECT_TRUE(performPOST(*client).isSuccess());  // the certificates are read before the clocks start
        client->requestSerializer().setTimeoutInterval(kLimit);
    }
    for (Request& request : requests) {
        request.start = Clock::now();
        request.outcome = startPOST(*clients[(&request - requests) % 2], request.address,
                                    Value::dictionary({{"v", request.value}}));
    }
    const auto isDone = [](Request& request) {
        const bool hasEnded = request.outcome->callbacks > 0;
        if (hasEnded && request.elapsed == 0ms) request.elapsed = Clock::now() - request.start;
        return hasEnded;
    };
    const auto areDone = [&] { return std::ranges::count_if(requests, isDone) == std::ssize(requests); };
    EXPECT_TRUE(MainQueue::shared().runUntil(areDone, 20s));
    for (const auto& [phase, address, due, value, start, elapsed, outcome] : requests) {
        SCOPED_TRACE(phase);
        if (due == 0ms) {
            EXPECT_TRUE(outcome->isSuccess()) << *outcome;
            EXPECT_GT(elapsed, kLimit);
        } else {
            EXPECT_TRUE(outcome->isFailure(NSURLErrorDomain, NSURLErrorTimedOut)) << *outcome;
            EXPECT_GE(elapsed, due);
            EXPECT_LT(elapsed, due + kTolerance);
        }
    }
}

/// Takes connections at an address and a port, the first one for ever, and answers none.
class SilentListener {
public:
    SilentListener(const char* address, const std::string& port)
        : listener_(::BIO_new_accept((std::string(address) + ':' + port).c_str()), &::BIO_free_all) {
        ::BIO_set_bind_mode(listener_.get(), BIO_SOCK_REUSEADDR);
        if (BIO_do_accept(listener_.get()) != 1) std::abort();
        const auto descriptor = static_cast<int>(BIO_get_fd(listener_.get(), nullptr));
        ::listen(descriptor, 0);
        sockaddr_storage own{};
        socklen_t size = sizeof own;
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size);
        first_ = ::socket(own.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(first_, reinterpret_cast<sockaddr*>(&own), size) != 0) std::abort();
    }
    ~SilentListener() { ::close(first_); }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

private:
    const std::unique_ptr<BIO, decltype(&::BIO_free_all)> listener_;
    int first_ = -1;
};

TEST(AFHTTPSessionManagerTimeTest, AHostIsReachedWhoseFirstAddressesDoNotAnswer) {
    TLSServerOptions options;
    for (const auto& host : kHostsOfSeveralAddresses)
        options.names.push_back("DNS:"s + host.name);
    const TLSServer server(answering(), options);
    const std::string address = server.address();
    const std::string port = address.substr(address.rfind(':') + 1, address.size() - address.rfind(':') - 2);
    const SilentListener second("127.0.0.2", port), third("127.0.0.3", port), ipv6("[::1]", port);
    const auto client = clientOf(server.address());
    client->requestSerializer().setTimeoutInterval(3s);
    std::vector<OutcomePtr> outcomes;
    for (const auto& host : kHostsOfSeveralAddresses)
        outcomes.push_back(startPOST(*client, server.address(host.name)));
    for (const auto& outcome : outcomes)
        EXPECT_TRUE(await(outcome).isSuccess()) << *outcome;
}

TEST(AFHTTPSessionManagerTimeTest, RequestsThatWaitForAConnectionDoNotAge) {
    const TLSServer server([](Connection& connection) {
        while (!connection.readRequest().empty() && connection.wait(500ms) && connection.answer()) {
        }
    });
    const auto client = clientOf(server.address());
    client->requestSerializer().setTimeoutInterval(2s);
    std::vector<OutcomePtr> outcomes(40);
    std::ranges::generate(outcomes, [&] { return startPOST(*client); });
    for (const auto& outcome : outcomes)
        EXPECT_TRUE(await(outcome).isSuccess()) << *outcome;
    EXPECT_EQ(server.connectionCount(), keepsConnections() ? 8 : std::ssize(outcomes));
}

TEST(AFHTTPSessionManagerTimeTest, ReadingTheAuthoritiesIsNoIdleTime) {
    const TLSServer server;
    const auto client = clientOf(server.address());
    std::string many;  // each one takes a while to read
    for (int count = 0; count < 10'000; ++count)
        many += TLSServer::certificateAuthority();
    client->addTrustedCertificateAuthority(many);
    client->requestSerializer().setTimeoutInterval(400ms);
    const auto start = Clock::now();
    const Outcome outcome = performPOST(*client);
    EXPECT_TRUE(outcome.isSuccess()) << outcome;
    EXPECT_GT(Clock::now() - start, 400ms);
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
        std::vector<OutcomePtr> outcomes = {startPOST(*client, first)};
        if (first != "token") areStalled.count_down();  // that one resolves, by and by
        for (int count = 0; count < 9; ++count)         // seven stall as well, two wait for a connection
            outcomes.push_back(startPOST(*client));
        areStalled.wait();
        // For the client's thread to come to rest, which nothing tells from outside.
        std::this_thread::sleep_for(50ms);
        const auto start = Clock::now();
        client.reset();
        EXPECT_LT(Clock::now() - start, 100ms) << first;
        for (const auto& outcome : outcomes)
            EXPECT_TRUE(await(outcome).isFailure(NSURLErrorDomain, NSURLErrorCancelled)) << *outcome;
    }
}

}  // namespace
}  // namespace zembra::test
