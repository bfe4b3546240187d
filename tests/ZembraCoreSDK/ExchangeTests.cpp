// The SDK's exchanges over real HTTPS: what goes over the wire, and what the caller sees of each outcome.

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/ZMBApplication.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/UIDevice.h>

#include "support/ClientFaults.h"
#include "support/ErrorMatchers.h"
#include "support/HostBundle.h"
#include "support/SandboxManager.h"
#include "support/TLSServer.h"

namespace zembra::test {
namespace {

using namespace std::chrono_literals;
using sandbox::Exchange;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::IsNull;
using ::testing::StartsWith;

/// What the callbacks of one call have received.
struct Outcome {
    int callbacks = 0;
    bool isOnMainThread = true;
    NSErrorPtr error;
    Value memberToken;

    void receive(NSErrorPtr received, Value token = {}) {
        ++callbacks;
        isOnMainThread = isOnMainThread && std::this_thread::get_id() == mainThread;
        error = std::move(received);
        memberToken = std::move(token);
    }
    const std::thread::id mainThread = std::this_thread::get_id();
};
using OutcomePtr = std::shared_ptr<Outcome>;

class ExchangeTest : public ::testing::Test {
protected:
    ExchangeTest() { setHostBundle("sandbox.demo", "com.example.host"); }

    static OutcomePtr startRegistration() {
        auto outcome = std::make_shared<Outcome>();
        ZMBApplication::configureApplication([outcome](bool success, const NSErrorPtr& error) {
            EXPECT_EQ(success, error == nullptr);
            outcome->receive(error);
        });
        return outcome;
    }

    OutcomePtr startRefresh(std::string refreshToken) const {
        auto outcome = std::make_shared<Outcome>();
        manager->refreshMemberToken(
            std::move(refreshToken), [outcome](const Value& token) { outcome->receive(nullptr, token); },
            [outcome](const NSErrorPtr& error) { outcome->receive(error); });
        return outcome;
    }

    /// Drains the main queue until the call has its outcome, and then all that is still to come.
    static Outcome await(const OutcomePtr& outcome) {
        EXPECT_TRUE(MainQueue::shared().runUntil([&] { return outcome->callbacks > 0; }, 30s));
        MainQueue::shared().drain();
        EXPECT_EQ(outcome->callbacks, 1);
        EXPECT_TRUE(outcome->isOnMainThread);
        return *outcome;
    }

    std::optional<std::string> authorization() const {
        return manager->authClient()->requestSerializer().valueForHTTPHeaderField("Authorization");
    }

    const sandbox::SandboxServer server;
    const std::shared_ptr<ZMBSDKAuthManager> manager =
        sharedManagerAt(server.baseAddress(), server.certificateAuthority());
};

TEST_F(ExchangeTest, RegistrationSendsWhatThePlatformExpects) {
    setHostBundle("client & söhne+1", "com.example/host?");
    EXPECT_THAT(await(startRegistration()).error, IsNull());
    ASSERT_EQ(server.exchangeCount(), 1u);
    const Exchange exchange = server.exchanges().front();
    EXPECT_EQ(exchange.method, "POST");
    EXPECT_EQ(exchange.target, "/api/v1/app/token");
    EXPECT_THAT(exchange.parameters, ElementsAre(std::pair("client_id", "client & söhne+1"),
                                                 std::pair("signature", "com.example/host?")));
    EXPECT_EQ(exchange.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(exchange.header("X-SDK-Version"), "iOS v" ZEMBRA_TEST_PROJECT_VERSION " Core");
    EXPECT_THAT(exchange.header("User-Agent").value_or(""),
                EndsWith(" " + *hardwareString(UIDevice::currentDevice())));
    EXPECT_EQ(exchange.header("Authorization"), std::nullopt);

    const Value answer = NSJSONSerialization::JSONObjectWithData(exchange.answer);
    EXPECT_EQ(manager->token(), answer["token"]);
    EXPECT_EQ(manager->accountId(), answer["account_id"]);
    EXPECT_TRUE(manager->token().isString());
}

TEST_F(ExchangeTest, RefreshesCarryTheAppTokenOfTheirOwnCallAndNothingElseDoes) {
    await(startRegistration());
    const std::string firstToken = manager->token().text();
    await(startRegistration());
    const std::string secondToken = manager->token().text();
    ASSERT_NE(firstToken, secondToken);

    manager->setBearerToken("of the host's own");
    manager->setToken(firstToken);
    std::vector<OutcomePtr> outcomes = {startRefresh("sandbox.member")};
    manager->setToken(secondToken);
    outcomes.push_back(startRefresh("sandbox.member"));
    outcomes.push_back(startRegistration());
    manager->setToken(firstToken);
    outcomes.push_back(startRefresh("sandbox.member"));
    outcomes.push_back(startRegistration());
    EXPECT_EQ(authorization(), std::nullopt);
    for (const auto& outcome : outcomes)
        EXPECT_THAT(await(outcome).error, IsNull());

    std::vector<std::string> bearers;
    for (const Exchange& exchange : server.exchanges()) {
        if (exchange.target == "/api/v1/app/token") {
            EXPECT_EQ(exchange.header("Authorization"), std::nullopt);
        } else {
            EXPECT_EQ(exchange.target, "/api/v1/app/members/token");
            EXPECT_THAT(exchange.parameters, ElementsAre(std::pair("refresh_token", "sandbox.member")));
            bearers.push_back(exchange.header("Authorization").value_or("none"));
        }
    }
    EXPECT_THAT(bearers, ::testing::UnorderedElementsAre("Bearer " + firstToken, "Bearer " + secondToken,
                                                         "Bearer " + firstToken));
}

TEST_F(ExchangeTest, RefreshTokensOfAnyBytesArriveUnchanged) {
    await(startRegistration());
    const Value appToken = manager->token();
    std::string allBytes;
    for (int byte = 0; byte < 256; ++byte)
        allBytes += static_cast<char>(byte);
    std::string large;
    for (std::size_t i = 0; large.size() < (1u << 20); ++i)
        large += allBytes[i * 7 % 256];

    for (const std::string& refreshToken : {std::string(), std::string("line\r\nbreak"), allBytes, large}) {
        const OutcomePtr outcome = startRefresh(refreshToken);
        EXPECT_THAT(await(outcome).error, IsAuthError(3, "internal_error")) << "the server does not know it";
        EXPECT_EQ(server.exchanges().back().parameter("refresh_token"), refreshToken);
    }
    EXPECT_EQ(manager->token(), appToken);
}

TEST_F(ExchangeTest, AppTokenThatNoHeaderCanCarryFailsOnceAndSendsNothing) {
    for (const char* token : {"a\r\nX-Evil: 1", "a\nb", "a\x7F"}) {
        manager->setToken(token);
        manager->setBearerToken("of the host's own");
        const NSErrorPtr error = await(startRefresh("sandbox.member")).error;
        ASSERT_THAT(error, IsError(AFHTTPSessionErrorDomain, AFHTTPSessionErrorInvalidHeader));
        EXPECT_THAT(error->localizedDescription(), HasSubstr("Authorization"));
        EXPECT_THAT(error->localizedDescription(), ::testing::Not(HasSubstr(token)));
        EXPECT_EQ(authorization(), std::nullopt);
    }
    EXPECT_EQ(server.exchangeCount(), 0u);
    EXPECT_THAT(await(startRegistration()).error, IsNull()) << "the client is as good as before";
}

// Each way in which an exchange can end, crossed with what the caller sees.
// -----------------------------------

/// What is left of the two credentials after an exchange.
enum class Credentials { kept, replaced };

TEST_F(ExchangeTest, EveryOutcomeOfARegistrationIsTold) {
    const struct {
        const char* clientId;
        ::testing::Matcher<NSErrorPtr> error;
        Credentials credentials;
    } outcomes[] = {
        {"sandbox.demo", IsNull(), Credentials::replaced},
        {"sandbox.slow", IsNull(), Credentials::replaced},
        {"sandbox.null-token", IsNull(), Credentials::replaced},
        {"sandbox.empty-token", IsNull(), Credentials::replaced},
        {"sandbox.no-token", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.no-account-id", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.empty-body", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.array", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.string", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.number", IsAuthError(3, "server_error"), Credentials::replaced},
        {"sandbox.unauthorized", IsAuthError(2, "app_unauthorized_error"), Credentials::kept},
        {"sandbox.refused", IsAuthError(3, "internal_error"), Credentials::kept},
        {"sandbox.broken", IsAuthError(3, "internal_error"), Credentials::kept},
        {"sandbox.wrong-content-type", IsAuthError(3, "internal_error"), Credentials::kept},
        {"sandbox.not-json", IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorMalformed),
         Credentials::kept},
        {"sandbox.truncated", IsAuthError(0, "network_error"), Credentials::kept},
        {"sandbox.reset", IsAuthError(0, "network_error"), Credentials::kept},
        {"sandbox.silent", IsAuthError(0, "network_error"), Credentials::kept},
    };
    for (const auto& [clientId, error, credentials] : outcomes) {
        SCOPED_TRACE(clientId);
        manager->setToken("earlier token");
        manager->setAccountId("earlier account");
        manager->setBearerToken("of the host's own");
        setHostBundle(clientId, "com.example.host");
        EXPECT_THAT(await(startRegistration()).error, error);
        const bool isKept =
            manager->token() == Value("earlier token") && manager->accountId() == Value("earlier account");
        const bool isReplaced =
            manager->token() != Value("earlier token") && manager->accountId() != Value("earlier account");
        EXPECT_TRUE(credentials == Credentials::kept ? isKept : isReplaced);
        EXPECT_EQ(authorization(), "Bearer of the host's own") << "a registration leaves the header alone";
    }
}

TEST_F(ExchangeTest, EveryOutcomeOfARefreshIsTold) {
    const struct {
        const char* refreshToken;
        ::testing::Matcher<NSErrorPtr> error;
    } outcomes[] = {
        {"sandbox.member", IsNull()},
        {"sandbox.slow", IsNull()},
        {"sandbox.null-token", IsNull()},
        {"sandbox.empty-token", IsNull()},
        {"sandbox.no-token", IsAuthError(3, "server_error")},
        {"sandbox.empty-body", IsAuthError(3, "server_error")},
        {"sandbox.array", IsAuthError(3, "server_error")},
        {"sandbox.string", IsAuthError(3, "server_error")},
        {"sandbox.number", IsAuthError(3, "server_error")},
        {"sandbox.unauthorized", IsAuthError(2, "app_unauthorized_error")},
        {"sandbox.expired", IsAuthError(2, "app_unauthorized_error")},
        {"sandbox.unknown", IsAuthError(3, "internal_error")},
        {"sandbox.refused", IsAuthError(3, "internal_error")},
        {"sandbox.broken", IsAuthError(3, "internal_error")},
        {"sandbox.wrong-content-type", IsAuthError(3, "internal_error")},
        {"sandbox.not-json", IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorMalformed)},
        {"sandbox.truncated", IsAuthError(0, "network_error")},
        {"sandbox.reset", IsAuthError(0, "network_error")},
        {"sandbox.silent", IsAuthError(0, "network_error")},
    };
    ASSERT_THAT(await(startRegistration()).error, IsNull());
    const Value token = manager->token(), accountId = manager->accountId();
    for (const auto& [refreshToken, error] : outcomes) {
        SCOPED_TRACE(refreshToken);
        manager->setBearerToken("of the host's own");
        const Outcome outcome = await(startRefresh(refreshToken));
        EXPECT_THAT(outcome.error, error);
        EXPECT_EQ(outcome.memberToken.isNothing(), outcome.error != nullptr);
        EXPECT_EQ(manager->token(), token);
        EXPECT_EQ(manager->accountId(), accountId);
        EXPECT_EQ(authorization(), std::nullopt);
    }
    manager->setToken("a token that the server never gave out");
    EXPECT_THAT(await(startRefresh("sandbox.member")).error, IsAuthError(2, "app_unauthorized_error"));
}

TEST_F(ExchangeTest, AThousandExchangesInFlightEachEndOnce) {
    std::vector<OutcomePtr> outcomes;
    for (int i = 0; i < 1000; ++i)
        outcomes.push_back(startRegistration());
    for (const auto& outcome : outcomes)
        EXPECT_THAT(await(outcome).error, IsNull());
    EXPECT_EQ(server.exchangeCount(), 1000u);
}

// Everything that the HTTP client can report comes out of the mapping as an error of some kind.
TEST(ExchangeFault, NoneIsLostInTheMapping) {
    for (const ClientFault& fault : clientFaults()) {
        SCOPED_TRACE(fault.name);
        const NSErrorPtr mapped = ZMBAuthError(fault.provoke());
        ASSERT_NE(mapped, nullptr);
        if (fault.domain == NSURLErrorDomain) {
            EXPECT_THAT(mapped, IsAuthError(0, "network_error"));
        } else if (fault.code == AFHTTPSessionErrorUnacceptableContentType) {
            EXPECT_THAT(mapped, IsAuthError(3, "internal_error"));
        }
    }
}

// Faults before there is an answer. Each needs a shared manager of its own.
// ------------------------------------

/// Registers with an earlier token in place, and expects a network error with this underlying code.
void expectNetworkError(const std::string& address, const std::string& authority, NSInteger code) {
    const auto manager = sharedManagerAt(address, authority);
    setHostBundle("sandbox.demo", "com.example.host");
    manager->setToken("earlier token");
    int callbacks = 0;
    NSErrorPtr error;
    ZMBApplication::configureApplication([&](bool, const NSErrorPtr& received) {
        ++callbacks;
        error = received;
    });
    EXPECT_EQ(callbacks, 0) << "never inside the call";
    ASSERT_TRUE(MainQueue::shared().runUntil([&] { return callbacks > 0; }, 30s));
    ASSERT_THAT(error, IsAuthError(0, "network_error"));
    EXPECT_THAT(error->userInfo()[NSUnderlyingErrorKey].as<NSError>(), IsError(NSURLErrorDomain, code));
    EXPECT_EQ(manager->token(), Value("earlier token"));
}

TEST(ExchangeFault, RefusedConnection) {
    expectNetworkError(refusingAddress() + "api/v1/", TLSServer::certificateAuthority(),
                       NSURLErrorCannotConnectToHost);
}

TEST(ExchangeFault, UntrustedServer) {
    const sandbox::SandboxServer server;
    expectNetworkError(server.baseAddress(), TLSServer::certificateAuthority(),
                       NSURLErrorServerCertificateHasUnknownRoot);
    EXPECT_EQ(server.exchangeCount(), 0u);
}

TEST(ExchangeFault, BaseAddressThatIsNoURL) {
    expectNetworkError("https://[", TLSServer::certificateAuthority(), NSURLErrorBadURL);
}

TEST(ExchangeFault, ServerThatIsMuteInTLS) {
    const TLSServer server([](Connection& connection) { connection.hold(); });
    expectNetworkError(server.address() + "api/v1/", TLSServer::certificateAuthority(), NSURLErrorTimedOut);
}

}  // namespace
}  // namespace zembra::test
