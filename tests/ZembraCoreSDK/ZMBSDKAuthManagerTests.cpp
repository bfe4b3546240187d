// Orders, counts and lifetimes, seen over an HTTP client that records. What goes over the wire, and each
// outcome of an exchange: ExchangeTests.cpp.

#include <barrier>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include "support/ErrorMatchers.h"
#include "support/HostBundle.h"
#include "support/RecordingClient.h"

namespace zembra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;
using Header = std::optional<std::string>;

const auto kHost = "com.example.host";
const Value kAnswer = Value::dictionary({{"token", "t"}, {"account_id", "a"}, {"more", 1}});

class AuthManagerTest : public ::testing::Test {
protected:
    AuthManagerTest() {
        setHostBundle("client-1", kHost);
        manager->setAuthClient(client);
    }

    void getAuthToken(ZMBSDKAuthManager& receiver) {
        receiver.getAuthTokenSuccess(
            [this](const Value& account, const Value& token) {
                values = {account, token};
            },
            failure);
    }
    void getAuthToken() { getAuthToken(*manager); }
    void refresh(const std::string& refreshToken = "refresh-1") {
        manager->refreshMemberToken(
            refreshToken, [this](const Value& token) { values = {token}; }, failure);
    }
    Header authorization() const {
        return client->requestSerializer().valueForHTTPHeaderField("Authorization");
    }

    std::shared_ptr<RecordingClient> client = std::make_shared<RecordingClient>();
    std::shared_ptr<ZMBSDKAuthManager> manager = std::make_shared<ZMBSDKAuthManager>();
    std::vector<Value> values;       // what the success handlers received last
    std::vector<NSErrorPtr> errors;  // what the failure handlers have received
    const ZMBSDKAuthManager::Failure failure = [this](const NSErrorPtr& error) { errors.push_back(error); };
};

// What a call needs
// -------------------------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, CallsAreRefusedBeforeTheyReturnWithoutWhatTheyNeed) {
    const auto wrong = IsAuthError(1, "wrong_information");
    const auto unauthorized = IsAuthError(2, "app_unauthorized_error");
    const ::testing::Matcher<NSErrorPtr> none = IsNull();
    const struct {
        Value clientId, bundleIdentifier, token;
        bool isClientIdInvalid, isExchanged;
        ::testing::Matcher<NSErrorPtr> refusal;  // of a refresh
    } cases[] = {
        {{}, kHost, "app-token", true, false, wrong},
        {"", kHost, {}, true, false, wrong},
        {{}, {}, {}, true, false, wrong},
        {"client-1", {}, {}, false, false, unauthorized},
        {"client-1", "", "", false, true, unauthorized},
        {" ", kHost, " ", false, true, none},
        {42, kHost, 0, false, true, none},
        {Value::null(), kHost, Value::null(), false, true, none},
    };
    for (const auto& [clientId, bundleIdentifier, token, isClientIdInvalid, isExchanged, refusal] : cases) {
        SCOPED_TRACE(clientId);
        setHostBundle(clientId, bundleIdentifier);
        manager->setToken(token);
        manager->setBearerToken("someone's");
        client->requests.clear();
        errors.clear();
        EXPECT_EQ(manager->isClientIdInvalid(), isClientIdInvalid);
        EXPECT_THAT(manager->notAllowRefreshError(), refusal);
        getAuthToken();
        if (isExchanged) {
            EXPECT_EQ(client->requests.at(0).parameters,
                      Value::dictionary({{"client_id", clientId}, {"signature", bundleIdentifier}}));
        } else {
            EXPECT_THAT(client->requests, IsEmpty());
            EXPECT_THAT(errors, ElementsAre(wrong));
        }
        if (manager->notAllowRefreshError()) {
            refresh();
            EXPECT_THAT(errors.back(), refusal);
            EXPECT_EQ(client->requests.size(), isExchanged ? 1u : 0u);
            EXPECT_EQ(authorization(), "Bearer someone's") << "a refused refresh leaves the header alone";
        }
        EXPECT_EQ(manager->token(), token);
    }
}

TEST_F(AuthManagerTest, CallsWithoutAnHTTPClientAreRefusedAfterTheOtherTests) {
    manager->setAuthClient(nullptr);
    manager->setBearerToken("abc");  // nothing to set it on
    getAuthToken();
    refresh();
    manager->setToken("app-token");
    refresh();
    EXPECT_THAT(errors,
                ElementsAre(IsAuthError(1, "wrong_information"), IsAuthError(2, "app_unauthorized_error"),
                            IsAuthError(1, "wrong_information")));
}

TEST_F(AuthManagerTest, LooksIdentifiersUpAnewInAFixedOrder) {
    // How often the client identifier is there before it vanishes, and what the exchange makes of that.
    const std::vector<std::string> looks{"CFBundleIdentifier", "ZMBSDKClientID", "ZMBSDKClientID",
                                         "ZMBSDKClientID"};
    for (const int present : {0, 1, 2, 3}) {
        int clientIdLooks = 0;
        const auto bundle = std::make_shared<HostBundle>([&](std::string_view key) {
            if (key == "CFBundleIdentifier") return Value(kHost);
            return clientIdLooks++ < present ? Value("client-1") : Value();
        });
        NSBundle::setMainBundle(bundle);
        getAuthToken();
        EXPECT_EQ(bundle->lookups, std::vector(looks.begin(), looks.begin() + std::min(present + 2, 4)));
    }
    EXPECT_THAT(errors,
                ElementsAre(IsAuthError(1, "wrong_information"), IsAuthError(1, "wrong_information")));
    ASSERT_EQ(client->requests.size(), 2u);
    EXPECT_EQ(client->requests[0].parameters, Value::dictionary({{"signature", kHost}}))
        << "gone by then: left out";

    const auto empty = std::make_shared<HostBundle>([](std::string_view) { return Value(); });
    NSBundle::setMainBundle(empty);
    getAuthToken();
    EXPECT_THAT(empty->lookups, ElementsAre("CFBundleIdentifier"));
}

// What an answer does
// -----------------------------------------------------------------------------------------------------

/// Tells which of its operations are called, and may go while an answer is handled.
class HostManager : public ZMBSDKAuthManager {
public:
    void setToken(Value token) override {
        calls.push_back("setToken");
        ZMBSDKAuthManager::setToken(std::move(token));
        if (onSetToken) onSetToken();
    }
    void setAccountId(Value accountId) override {
        calls.push_back("setAccountId");
        ZMBSDKAuthManager::setAccountId(std::move(accountId));
    }
    Value accountId() const override {
        calls.push_back("accountId");
        return ZMBSDKAuthManager::accountId();
    }
    Value token() const override {
        calls.push_back("token");
        return "read back";
    }

    std::function<void()> onSetToken;
    mutable std::vector<std::string> calls;
};

TEST_F(AuthManagerTest, AnswerGoesThroughTheManagersOwnOperationsInOrder) {
    auto host = std::make_shared<HostManager>();
    host->setAuthClient(client);
    getAuthToken(*host);
    client->requests[0].answer(kAnswer);
    EXPECT_THAT(host->calls, ElementsAre("setToken", "setAccountId", "accountId", "token"));
    EXPECT_THAT(values, ElementsAre(Value("a"), Value("read back")));

    host->onSetToken = [&host] { host.reset(); };  // gone: not touched again
    getAuthToken(*host);
    client->requests[1].answer(kAnswer);
    EXPECT_THAT(errors, ElementsAre(IsAuthError(3, "server_error")));
}

TEST_F(AuthManagerTest, AnswerHandledLastWins) {
    getAuthToken();
    manager->getAuthTokenSuccess(nullptr, nullptr);  // without callbacks: no crash
    client->requests[1].answer(Value::dictionary({{"token", 1}, {"account_id", 2}}));
    EXPECT_EQ(manager->accountId(), Value(2));
    client->requests[0].answer(kAnswer);
    EXPECT_EQ(manager->token(), Value("t"));
    EXPECT_EQ(manager->accountId(), Value("a"));
}

TEST_F(AuthManagerTest, RequestsDoNotKeepTheManagerAlive) {
    manager->setToken("app-token");
    getAuthToken();
    refresh();
    const std::weak_ptr<ZMBSDKAuthManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired());
    client->requests[0].answer(kAnswer);
    EXPECT_THAT(errors, ElementsAre(IsAuthError(3, "server_error")));
    client->requests[1].answer(kAnswer);
    EXPECT_THAT(values, ElementsAre(Value("t")));
    client->requests[1].fail(NSError::errorWithDomain("foreign", 1, Value::dictionary({})));
    EXPECT_THAT(errors.back(), IsNull()) << "what the mapping makes of it";
}

// The bearer value
// -----------------------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, BearerTokenSetsAndRemovesTheHeader) {
    const std::pair<Value, Header> cases[] = {
        {"", "Bearer "}, {{}, std::nullopt}, {Value::null(), "Bearer null"}};
    for (const auto& [token, header] : cases) {
        manager->setBearerToken(token);
        EXPECT_EQ(authorization(), header);
    }
}

TEST_F(AuthManagerTest, RefreshAloneCarriesTheBearerValue) {
    manager->setBearerToken("someone's");
    manager->setToken("app-1");
    refresh();
    manager->setToken("app-2");
    refresh("");
    getAuthToken();
    ASSERT_EQ(client->requests.size(), 3u);
    EXPECT_EQ(client->requests[0].headers.at("Authorization"), "Bearer app-1");
    EXPECT_EQ(client->requests[1].headers.at("Authorization"), "Bearer app-2");
    EXPECT_EQ(client->requests[1].parameters, Value::dictionary({{"refresh_token", ""}}));
    EXPECT_FALSE(client->requests[2].headers.contains("Authorization"));
}

// The shared manager. CTest runs each test in a process of its own, so that each makes the first call.
// ------------------------------------------------------------------------------------------------------

/// Hands the client that the shared manager's construction makes over to a recording one.
class RecordedManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return "https://localhost/api/v1/"; }

    void setAuthClient(std::shared_ptr<AFHTTPSessionManager> client) override {
        baseURL = client->baseURL().absoluteString();
        recording->requestSerializer().setValue(std::nullopt, "User-Agent");
        ZMBSDKAuthManager::setAuthClient(recording);
    }

    std::string baseURL;
    static inline const auto recording = std::make_shared<RecordingClient>();
};

TEST(SharedManager, IsMadeOnceByConcurrentFirstCallers) {
    constexpr int kThreads = 64;
    std::barrier start(kThreads);
    std::vector<std::shared_ptr<ZMBSDKAuthManager>> managers(kThreads);
    std::vector<std::thread> threads;
    for (auto& manager : managers) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            manager = ZMBSDKAuthManager::sharedManager();
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(std::set(managers.begin(), managers.end()).size(), 1u);

    const auto manager = managers.front();
    EXPECT_EQ(ZMBSDKAuthManager::sharedManager<RecordedManager>(), manager);
    EXPECT_EQ(std::dynamic_pointer_cast<RecordedManager>(manager), nullptr) << "the type of the first call";
    EXPECT_EQ(manager->authClient()->baseURL().absoluteString(), ZMBSDKAuthManager::cmsAPIHost());
    EXPECT_THAT(ZMBSDKAuthManager::cmsAPIHost(), ::testing::MatchesRegex("https://[^/?#@]+/api/v1/"));
    EXPECT_EQ(manager->authClient()->requestSerializer().timeoutInterval().count(), 2.0);
    EXPECT_THAT(manager->authClient()->responseSerializer().acceptableContentTypes(),
                ElementsAre("application/json"));
    EXPECT_TRUE(manager->token().isNothing() && manager->accountId().isNothing());
}

TEST(SharedManager, HasTheTypeOfTheFirstCall) {
    const auto manager = ZMBSDKAuthManager::sharedManager<RecordedManager>();
    const auto recorded = std::dynamic_pointer_cast<RecordedManager>(manager);
    ASSERT_NE(recorded, nullptr);
    EXPECT_EQ(recorded->baseURL, "https://localhost/api/v1/");
    EXPECT_EQ(ZMBSDKAuthManager::sharedManager(), manager);
    EXPECT_EQ(manager->authClient()->requestSerializer().valueForHTTPHeaderField("User-Agent"), std::nullopt)
        << "removed, not made, where the client has none";
}

TEST(ConfigureApplication, TellsTheOutcomeOnce) {
    const auto manager = ZMBSDKAuthManager::sharedManager<RecordedManager>();
    const auto& requests = RecordedManager::recording->requests;
    std::vector<std::pair<bool, NSErrorPtr>> completions;
    const auto configure = [&] {
        ZMBApplication::configureApplication(
            [&](bool success, const NSErrorPtr& error) { completions.emplace_back(success, error); });
    };
    using ::testing::Pair;
    const auto refused = Pair(false, IsAuthError(1, "wrong_information"));

    setHostBundle("", kHost);
    configure();
    EXPECT_THAT(completions, ElementsAre(refused)) << "before the call returns";
    setHostBundle("client-1", kHost);
    configure();
    configure();
    ZMBApplication::configureApplication(nullptr);
    EXPECT_EQ(completions.size(), 1u);
    requests.at(0).answer(kAnswer);
    requests.at(1).answer(Value());
    requests.at(2).answer(kAnswer);
    EXPECT_THAT(completions,
                ElementsAre(refused, Pair(true, IsNull()), Pair(false, IsAuthError(3, "server_error"))));
    EXPECT_EQ(manager->token(), Value("t"));
}

}  // namespace
}  // namespace zembra::test
