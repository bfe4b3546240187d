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
using ::testing::IsNull;
using ::testing::UnorderedElementsAre;

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

OutcomePtr startRegistration() {
    auto outcome = std::make_shared<Outcome>();
    ZMBApplication::configureApplication([outcome](bool success, const NSErrorPtr& error) {
        EXPECT_EQ(success, error == nullptr);
        outcome->receive(error);
    });
    return outcome;
}

/// Drains the main queue until the call has its outcome, and then all that is still to come.
Outcome await(const OutcomePtr& outcome) {
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return outcome->callbacks > 0; }, 30s));
    MainQueue::shared().drain();
    EXPECT_EQ(outcome->callbacks, 1);
    EXPECT_TRUE(outcome->isOnMainThread);
    return *outcome;
}

class ExchangeTest : public ::testing::Test {
protected:
    ExchangeTest() { setHostBundle("sandbox.demo", "com.example.host"); }

    OutcomePtr startRefresh(std::string refreshToken) const {
        auto outcome = std::make_shared<Outcome>();
        manager->refreshMemberToken(
            std::move(refreshToken), [outcome](const Value& token) { outcome->receive(nullptr, token); },
            [outcome](const NSErrorPtr& error) { outcome->receive(error); });
        return outcome;
    }

    std::optional<std::string> authorization() const {
        return manager->authClient()->requestSerializer().valueForHTTPHeaderField("Authorization");
    }

    /// What the server's last answer has under `key`; nothing where it is no dictionary.
    Value answered(std::string_view key) const {
        return NSJSONSerialization::JSONObjectWithData(server.exchanges().back().answer)[key];
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
    const auto appToken = [this] {
        await(startRegistration());
        return manager->token().text();
    };
    const std::string first = appToken(), second = appToken();
    ASSERT_NE(first, second);
    manager->setBearerToken("of the host's own");
    std::vector<OutcomePtr> outcomes;
    for (const std::string& token : {first, second, first}) {
        manager->setToken(token);
        outcomes.push_back(startRefresh("sandbox.member"));
        outcomes.push_back(startRegistration());
    }
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
    EXPECT_THAT(bearers, UnorderedElementsAre("Bearer " + first, "Bearer " + second, "Bearer " + first));
}

TEST_F(ExchangeTest, RefreshTokensOfAnyBytesArriveUnchanged) {
    await(startRegistration());
    const Value appToken = manager->token();
    std::string large;  // and of every byte
    for (std::size_t i = 0; i < (1u << 20); ++i)
        large += static_cast<char>(i * 7);
    for (const std::string& refreshToken : {std::string(), std::string("line\r\nbreak"), large}) {
        EXPECT_THAT(await(startRefresh(refreshToken)).error, IsAuthError(3, "internal_error"))
            << "an unknown one";
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

const struct {
    ::testing::Matcher<NSErrorPtr> error;
    bool isStored;  // by a registration; a refresh stores nothing
    std::vector<std::string> inBoth, inRegistrations, inRefreshes;  // the sandbox's "sandbox.<name>"
} kOutcomes[] = {
    {IsNull(), true, {"slow", "null-token", "empty-token"}, {"demo"}, {"member"}},
    {IsAuthError(3, "server_error"),
     true,
     {"no-token", "empty-body", "array", "string", "number"},
     {"no-account-id"},
     {}},
    {IsAuthError(2, "app_unauthorized_error"), false, {"unauthorized"}, {}, {"expired"}},
    {IsAuthError(3, "internal_error"), false, {"refused", "broken", "wrong-content-type"}, {}, {"unknown"}},
    {IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorMalformed), false, {"not-json"}, {}, {}},
    {IsAuthError(0, "network_error"), false, {"truncated", "reset", "silent"}, {}, {}},
};

std::vector<std::string> joined(std::vector<std::string> names, const std::vector<std::string>& more) {
    names.insert(names.end(), more.begin(), more.end());
    return names;
}

TEST_F(ExchangeTest, EveryOutcomeOfARegistrationIsTold) {
    const Value token = "earlier token", accountId = "earlier account";
    for (const auto& [error, isStored, inBoth, inRegistrations, inRefreshes] : kOutcomes) {
        for (const std::string& name : joined(inBoth, inRegistrations)) {
            SCOPED_TRACE(name);
            manager->setToken(token);
            manager->setAccountId(accountId);
            manager->setBearerToken("of the host's own");
            setHostBundle("sandbox." + name, "com.example.host");
            EXPECT_THAT(await(startRegistration()).error, error);
            EXPECT_EQ(manager->token(), isStored ? answered("token") : token);
            EXPECT_EQ(manager->accountId(), isStored ? answered("account_id") : accountId);
            EXPECT_TRUE(name != "null-token" || manager->token().isNull());
            EXPECT_TRUE(name != "empty-token" || manager->token() == Value(""));
            EXPECT_EQ(authorization(), "Bearer of the host's own")
                << "a registration leaves the header alone";
        }
    }
}

TEST_F(ExchangeTest, EveryOutcomeOfARefreshIsTold) {
    await(startRegistration());
    const Value token = manager->token(), accountId = manager->accountId();
    for (const auto& [error, isStored, inBoth, inRegistrations, inRefreshes] : kOutcomes) {
        for (const std::string& name : joined(inBoth, inRefreshes)) {
            SCOPED_TRACE(name);
            manager->setBearerToken("of the host's own");
            const Outcome outcome = await(startRefresh("sandbox." + name));
            EXPECT_THAT(outcome.error, error);
            EXPECT_EQ(outcome.memberToken, outcome.error == nullptr ? answered("token") : Value());
            EXPECT_TRUE(name != "null-token" || outcome.memberToken.isNull());
            EXPECT_TRUE(name != "empty-token" || outcome.memberToken == Value(""));
            EXPECT_EQ(manager->token(), token);
            EXPECT_EQ(manager->accountId(), accountId);
            EXPECT_EQ(authorization(), std::nullopt);
        }
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
    const OutcomePtr outcome = startRegistration();
    EXPECT_EQ(outcome->callbacks, 0) << "never inside the call";
    const NSErrorPtr error = await(outcome).error;
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
