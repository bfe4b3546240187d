#include <atomic>
#include <barrier>
#include <set>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/ZMBApplication.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/UIDevice.h>

#include "support/ErrorMatchers.h"
#include "support/HostBundle.h"
#include "support/RecordingClient.h"

namespace zembra::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsNull;

/// What a caller's two callbacks have received so far.
struct Outcome {
    int successes = 0;
    std::vector<Value> values;
    std::vector<NSErrorPtr> errors;

    auto tokenSuccess() {
        return [this](const Value& accountId, const Value& token) { succeed({accountId, token}); };
    }
    auto refreshSuccess() {
        return [this](const Value& memberToken) { succeed({memberToken}); };
    }
    auto failure() {
        return [this](const NSErrorPtr& error) { errors.push_back(error); };
    }
    void succeed(std::vector<Value> received) {
        ++successes;
        values = std::move(received);
    }
};

class AuthManagerTest : public ::testing::Test {
protected:
    AuthManagerTest() {
        setHostBundle("client-1", "com.example.host");
        manager->setAuthClient(client);
    }

    void getAuthToken() { manager->getAuthTokenSuccess(outcome.tokenSuccess(), outcome.failure()); }
    void refresh(const std::string& refreshToken = "refresh-1") {
        manager->refreshMemberToken(refreshToken, outcome.refreshSuccess(), outcome.failure());
    }
    std::optional<std::string> authorization() const {
        return client->requestSerializer().valueForHTTPHeaderField("Authorization");
    }

    std::shared_ptr<RecordingClient> client = std::make_shared<RecordingClient>();
    std::shared_ptr<ZMBSDKAuthManager> manager = std::make_shared<ZMBSDKAuthManager>();
    Outcome outcome;
};

// The client identifier
// ------------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, OnlyAMissingOrEmptyClientIdIsInvalid) {
    const struct {
        Value clientId;
        bool isInvalid;
    } cases[] = {{{}, true}, {"", true}, {" ", false}, {"id", false}, {42, false}, {Value::null(), false}};
    for (const auto& [clientId, isInvalid] : cases) {
        setHostBundle(clientId, "com.example.host");
        EXPECT_EQ(manager->clientId(), clientId);
        EXPECT_EQ(manager->isClientIdInvalid(), isInvalid) << clientId;
    }
}

TEST_F(AuthManagerTest, LooksIdentifiersUpAnewInAFixedOrder) {
    const auto bundle = std::make_shared<HostBundle>([](std::string_view key) { return Value(key); });
    NSBundle::setMainBundle(bundle);
    getAuthToken();
    EXPECT_THAT(bundle->lookups,
                ElementsAre("CFBundleIdentifier", "ZMBSDKClientID", "ZMBSDKClientID", "ZMBSDKClientID"));
}

TEST_F(AuthManagerTest, ClientIdThatVanishesBetweenTheLooksIsInvalidOrLeftOut) {
    for (const int presentLooks : {1, 2}) {
        int looks = 0;
        NSBundle::setMainBundle(std::make_shared<HostBundle>([&](std::string_view key) {
            if (key == ZMBSDKBundleIdentifierKey) return Value("com.example.host");
            return looks++ < presentLooks ? Value("client-1") : Value();
        }));
        getAuthToken();
    }
    EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(1, "wrong_information")));
    ASSERT_EQ(client->requests.size(), 1u);
    EXPECT_EQ(client->requests[0].parameters, Value::dictionary({{"signature", "com.example.host"}}));
}

// The app token exchange
// -----------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, ExchangeFailsBeforeItReturnsWhereTheConfigurationLacksAnIdentifier) {
    manager->setToken("kept token");
    const struct {
        Value clientId, bundleIdentifier;
    } cases[] = {{"client-1", {}}, {{}, "com.example.host"}, {"", "com.example.host"}, {{}, {}}};
    for (const auto& [clientId, bundleIdentifier] : cases) {
        setHostBundle(clientId, bundleIdentifier);
        outcome.errors.clear();
        getAuthToken();
        EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(1, "wrong_information")));
    }
    EXPECT_THAT(client->requests, IsEmpty());
    EXPECT_EQ(manager->token(), Value("kept token"));
}

TEST_F(AuthManagerTest, ExchangeWithoutABundleIdentifierNeverAsksForTheClientId) {
    const auto bundle = std::make_shared<HostBundle>([](std::string_view) { return Value(); });
    NSBundle::setMainBundle(bundle);
    getAuthToken();
    EXPECT_THAT(bundle->lookups, ElementsAre("CFBundleIdentifier"));
}

TEST_F(AuthManagerTest, ExchangeWithoutAnHTTPClientFailsBeforeItReturns) {
    manager->setAuthClient(nullptr);
    getAuthToken();
    EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(1, "wrong_information")));
}

TEST_F(AuthManagerTest, ExchangeSendsBothIdentifiersAsTheyStand) {
    const struct {
        Value clientId, bundleIdentifier;
    } cases[] = {{"client-1", "com.example.host"}, {" ", ""}, {42, "b&b=ö"}};
    for (const auto& [clientId, bundleIdentifier] : cases) {
        setHostBundle(clientId, bundleIdentifier);
        getAuthToken();
        const auto& request = client->requests.back();
        EXPECT_EQ(request.path, "app/token");
        EXPECT_EQ(request.parameters,
                  Value::dictionary({{"client_id", clientId}, {"signature", bundleIdentifier}}));
        EXPECT_FALSE(request.hasProgress);
        EXPECT_FALSE(request.headers.contains("Authorization"));
    }
    EXPECT_EQ(client->requests.size(), 3u);
    EXPECT_EQ(outcome.successes, 0);
    EXPECT_THAT(outcome.errors, IsEmpty());
}

TEST_F(AuthManagerTest, ExchangeStoresEveryAnswerAndThenJudgesIt) {
    const struct {
        const char* name;
        Value response, token, accountId;
        bool isSuccess;
    } cases[] = {
        {"both", Value::dictionary({{"token", "t"}, {"account_id", "a"}, {"more", 1}}), "t", "a", true},
        {"token only", Value::dictionary({{"token", "t"}}), "t", {}, false},
        {"account only", Value::dictionary({{"account_id", "a"}}), {}, "a", false},
        {"empty token", Value::dictionary({{"token", ""}, {"account_id", "a"}}), "", "a", true},
        {"null token", Value::dictionary({{"token", Value::null()}, {"account_id", "a"}}), Value::null(), "a",
         true},
        {"numbers", Value::dictionary({{"token", 1}, {"account_id", 2}}), 1, 2, true},
        {"no members", Value::dictionary({}), {}, {}, false},
        {"empty body", {}, {}, {}, false},
        {"array", Value::array({"token", "account_id"}), {}, {}, false},
        {"string", "token", {}, {}, false},
        {"null", Value::null(), {}, {}, false},
    };
    for (const auto& [name, response, token, accountId, isSuccess] : cases) {
        SCOPED_TRACE(name);
        manager->setToken("earlier token");
        manager->setAccountId("earlier account");
        outcome = {};
        getAuthToken();
        client->requests.back().answer(response);
        EXPECT_EQ(manager->token(), token);
        EXPECT_EQ(manager->accountId(), accountId);
        if (isSuccess) {
            EXPECT_EQ(outcome.successes, 1);
            EXPECT_THAT(outcome.values, ElementsAre(accountId, token))
                << "the account identifier comes first";
            EXPECT_THAT(outcome.errors, IsEmpty());
        } else {
            EXPECT_EQ(outcome.successes, 0);
            EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(3, "server_error")));
        }
    }
}

TEST_F(AuthManagerTest, FailedExchangeLeavesTheCredentialsAndReportsTheMappedError) {
    manager->setToken("earlier token");
    manager->setAccountId("earlier account");
    getAuthToken();
    client->requests.back().fail(NSError::errorWithDomain(NSURLErrorDomain, NSURLErrorTimedOut));
    getAuthToken();
    client->requests.back().fail(NSError::errorWithDomain("foreign", 1, Value::dictionary({})));
    EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(0, "network_error"), IsNull()));
    EXPECT_EQ(manager->token(), Value("earlier token"));
    EXPECT_EQ(manager->accountId(), Value("earlier account"));
}

TEST_F(AuthManagerTest, OverlappingExchangesLeaveTheValuesOfTheAnswerHandledLast) {
    getAuthToken();
    getAuthToken();
    client->requests[1].answer(Value::dictionary({{"token", "t2"}, {"account_id", "a2"}}));
    client->requests[0].answer(Value::dictionary({{"token", "t1"}, {"account_id", "a1"}}));
    EXPECT_EQ(outcome.successes, 2);
    EXPECT_EQ(manager->token(), Value("t1"));
    EXPECT_EQ(manager->accountId(), Value("a1"));
}

TEST_F(AuthManagerTest, RequestsDoNotKeepTheManagerAlive) {
    manager->setToken("app-token");
    getAuthToken();
    refresh();
    const std::weak_ptr<ZMBSDKAuthManager> weak = manager;
    manager.reset();
    EXPECT_TRUE(weak.expired());
    client->requests[0].answer(Value::dictionary({{"token", "t"}, {"account_id", "a"}}));
    EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(3, "server_error")));
    client->requests[1].answer(Value::dictionary({{"token", "member-token"}}));
    EXPECT_THAT(outcome.values, ElementsAre(Value("member-token")));
}

/// A manager that goes, or changes its mind, while an answer is handled.
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
    const auto host = std::make_shared<HostManager>();
    host->setAuthClient(client);
    host->getAuthTokenSuccess(outcome.tokenSuccess(), outcome.failure());
    client->requests.back().answer(Value::dictionary({{"token", "t"}, {"account_id", "a"}}));
    EXPECT_THAT(host->calls, ElementsAre("setToken", "setAccountId", "accountId", "token"));
    EXPECT_THAT(outcome.values, ElementsAre(Value("a"), Value("read back")));
}

TEST_F(AuthManagerTest, ManagerThatGoesWhileItsAnswerIsHandledIsNotTouchedAgain) {
    auto host = std::make_shared<HostManager>();
    host->setAuthClient(client);
    host->onSetToken = [&host] { host.reset(); };
    host->getAuthTokenSuccess(outcome.tokenSuccess(), outcome.failure());
    client->requests.back().answer(Value::dictionary({{"token", "t"}, {"account_id", "a"}}));
    EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(3, "server_error")));
}

// The bearer value
// -----------------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, BearerTokenSetsAndRemovesTheHeader) {
    const struct {
        Value token;
        std::optional<std::string> header;
    } cases[] = {{"abc", "Bearer abc"},
                 {"", "Bearer "},
                 {{}, std::nullopt},
                 {7, "Bearer 7"},
                 {Value::null(), "Bearer null"}};
    for (const auto& [token, header] : cases) {
        manager->setBearerToken(token);
        EXPECT_EQ(authorization(), header);
    }
    manager->setAuthClient(nullptr);
    manager->setBearerToken("abc");  // nothing to set it on
}

// The member token refresh
// ---------------------------------------------------------------------------------------

TEST_F(AuthManagerTest, RefreshIsRefusedBeforeItReturnsWithoutClientIdOrAppToken) {
    const struct {
        Value clientId, token;
        NSInteger code;
        const char* message;
    } cases[] = {
        {{}, {}, 1, "wrong_information"},
        {"", "app-token", 1, "wrong_information"},
        {"client-1", {}, 2, "app_unauthorized_error"},
        {"client-1", "", 2, "app_unauthorized_error"},
    };
    manager->setBearerToken("someone's");
    for (const auto& [clientId, token, code, message] : cases) {
        setHostBundle(clientId, {});
        manager->setToken(token);
        outcome.errors.clear();
        EXPECT_THAT(manager->notAllowRefreshError(), IsAuthError(code, message));
        refresh();
        EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(code, message)));
    }
    EXPECT_THAT(client->requests, IsEmpty());
    EXPECT_EQ(authorization(), "Bearer someone's") << "a refused refresh leaves the header alone";

    for (const Value& present : {Value("app-token"), Value(" "), Value::null(), Value(0)}) {
        setHostBundle("client-1", {});
        manager->setToken(present);
        EXPECT_THAT(manager->notAllowRefreshError(), IsNull()) << present;
    }
}

TEST_F(AuthManagerTest, RefreshWithoutAnHTTPClientFailsAfterItsTests) {
    manager->setAuthClient(nullptr);
    refresh();
    manager->setToken("app-token");
    refresh();
    EXPECT_THAT(outcome.errors,
                ElementsAre(IsAuthError(2, "app_unauthorized_error"), IsAuthError(1, "wrong_information")));
}

TEST_F(AuthManagerTest, RefreshCarriesTheBearerValueAndNoRequestAfterItDoes) {
    manager->setBearerToken("someone's");
    manager->setToken("app-1");
    refresh("r\n&=ü");
    manager->setToken("app-2");
    refresh("");
    getAuthToken();

    ASSERT_EQ(client->requests.size(), 3u);
    EXPECT_EQ(client->requests[0].path, "app/members/token");
    EXPECT_EQ(client->requests[0].parameters, Value::dictionary({{"refresh_token", "r\n&=ü"}}));
    EXPECT_EQ(client->requests[0].headers.at("Authorization"), "Bearer app-1");
    EXPECT_FALSE(client->requests[0].hasProgress);
    EXPECT_EQ(client->requests[1].parameters, Value::dictionary({{"refresh_token", ""}}));
    EXPECT_EQ(client->requests[1].headers.at("Authorization"), "Bearer app-2");
    EXPECT_FALSE(client->requests[2].headers.contains("Authorization"));
    EXPECT_EQ(authorization(), std::nullopt);
}

TEST_F(AuthManagerTest, RefreshHandsTheAnswersTokenOverAndStoresNothing) {
    manager->setToken("app-token");
    manager->setAccountId("account");
    const struct {
        Value response;
        std::optional<Value> memberToken;
    } cases[] = {
        {Value::dictionary({{"token", "m"}, {"more", 1}}), "m"},
        {Value::dictionary({{"token", ""}}), ""},
        {Value::dictionary({{"token", Value::null()}}), Value::null()},
        {Value::dictionary({{"other", "m"}}), std::nullopt},
        {Value::array({"token"}), std::nullopt},
        {"token", std::nullopt},
        {7, std::nullopt},
        {Value::null(), std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& [response, memberToken] : cases) {
        outcome = {};
        refresh();
        client->requests.back().answer(response);
        if (memberToken) {
            EXPECT_THAT(outcome.values, ElementsAre(*memberToken)) << response;
            EXPECT_THAT(outcome.errors, IsEmpty()) << response;
        } else {
            EXPECT_EQ(outcome.successes, 0) << response;
            EXPECT_THAT(outcome.errors, ElementsAre(IsAuthError(3, "server_error"))) << response;
        }
    }
    refresh();
    client->requests.back().fail(NSError::errorWithDomain(kCFErrorDomainCFNetwork, 1));
    EXPECT_THAT(outcome.errors.back(), IsAuthError(0, "network_error"));
    EXPECT_EQ(manager->token(), Value("app-token"));
    EXPECT_EQ(manager->accountId(), Value("account"));
}

TEST_F(AuthManagerTest, AbsentCallbacksAreNoCrash) {
    getAuthToken();
    manager->getAuthTokenSuccess(nullptr, nullptr);
    client->requests.back().answer(Value::dictionary({{"token", "t"}, {"account_id", "a"}}));
    EXPECT_EQ(manager->token(), Value("t"));
    manager->refreshMemberToken("r", nullptr, nullptr);
    client->requests.back().fail(nullptr);
}

// The shared manager. CTest runs each test in a process of its own, so that each makes the first call.
// ----------

/// Hands the client that the shared manager's construction makes over to a recording one.
class RecordedManager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return "https://localhost/api/v1/"; }

    void setAuthClient(std::shared_ptr<AFHTTPSessionManager> client) override {
        baseURL = client->baseURL().absoluteString();
        if (makeClient) client = makeClient();
        ZMBSDKAuthManager::setAuthClient(std::move(client));
    }

    std::string baseURL;
    static inline std::function<std::shared_ptr<AFHTTPSessionManager>()> makeClient;
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
    EXPECT_NE(managers.front()->authClient(), nullptr);
}

TEST(SharedManager, IsSetUpForThePlatform) {
    setHostBundle("client-1", "com.example.host");
    const auto manager = ZMBSDKAuthManager::sharedManager();
    auto& requests = manager->authClient()->requestSerializer();
    const std::string ownUserAgent = *AFHTTPSessionManager(NSURL::URLWithString(""))
                                          .requestSerializer()
                                          .valueForHTTPHeaderField("User-Agent");
    EXPECT_EQ(requests.valueForHTTPHeaderField("User-Agent"),
              ownUserAgent + " " + *hardwareString(UIDevice::currentDevice()));
    EXPECT_EQ(requests.valueForHTTPHeaderField("X-SDK-Version"), "iOS v" ZEMBRA_TEST_PROJECT_VERSION " Core");
    EXPECT_EQ(requests.valueForHTTPHeaderField("Authorization"), std::nullopt);
    EXPECT_EQ(requests.timeoutInterval().count(), 2.0);
    EXPECT_THAT(manager->authClient()->responseSerializer().acceptableContentTypes(),
                ElementsAre("application/json"));
    EXPECT_EQ(manager->authClient()->baseURL().absoluteString(), ZMBSDKAuthManager::cmsAPIHost());
    EXPECT_THAT(ZMBSDKAuthManager::cmsAPIHost(), ::testing::MatchesRegex("https://[^/?#@]+/api/v1/"));
    EXPECT_TRUE(manager->token().isNothing());
    EXPECT_TRUE(manager->accountId().isNothing());
}

TEST(SharedManager, HasTheTypeOfTheFirstCall) {
    const auto manager = ZMBSDKAuthManager::sharedManager<RecordedManager>();
    const auto recorded = std::dynamic_pointer_cast<RecordedManager>(manager);
    ASSERT_NE(recorded, nullptr);
    EXPECT_EQ(recorded->baseURL, "https://localhost/api/v1/");
    EXPECT_EQ(ZMBSDKAuthManager::sharedManager(), manager);
}

TEST(SharedManager, StaysOfThePlainTypeAfterAPlainFirstCall) {
    const auto manager = ZMBSDKAuthManager::sharedManager();
    EXPECT_EQ(ZMBSDKAuthManager::sharedManager<RecordedManager>(), manager);
    EXPECT_EQ(std::dynamic_pointer_cast<RecordedManager>(manager), nullptr);
}

TEST(SharedManager, DoesNotMakeAUserAgentWhereTheClientHasNone) {
    RecordedManager::makeClient = [] {
        auto client = std::make_shared<RecordingClient>();
        client->requestSerializer().setValue(std::nullopt, "User-Agent");
        return client;
    };
    const auto manager = ZMBSDKAuthManager::sharedManager<RecordedManager>();
    EXPECT_EQ(manager->authClient()->requestSerializer().valueForHTTPHeaderField("User-Agent"), std::nullopt);
}

TEST(ConfigureApplication, TellsTheOutcomeOnce) {
    const auto client = std::make_shared<RecordingClient>();
    RecordedManager::makeClient = [&] { return client; };
    const auto manager = ZMBSDKAuthManager::sharedManager<RecordedManager>();
    std::vector<std::pair<bool, NSErrorPtr>> completions;
    const auto completion = [&](bool success, const NSErrorPtr& error) {
        completions.emplace_back(success, error);
    };

    setHostBundle("", "com.example.host");
    ZMBApplication::configureApplication(completion);
    ASSERT_EQ(completions.size(), 1u) << "before the call returns";
    EXPECT_FALSE(completions[0].first);
    EXPECT_THAT(completions[0].second, IsAuthError(1, "wrong_information"));

    setHostBundle("client-1", "com.example.host");
    ZMBApplication::configureApplication(completion);
    ZMBApplication::configureApplication(completion);
    ZMBApplication::configureApplication(nullptr);
    ASSERT_EQ(client->requests.size(), 3u);
    EXPECT_EQ(completions.size(), 1u);
    client->requests[0].answer(Value::dictionary({{"token", "t"}, {"account_id", "a"}}));
    client->requests[1].answer(Value());
    client->requests[2].answer(Value::dictionary({{"token", "t3"}, {"account_id", "a3"}}));
    ASSERT_EQ(completions.size(), 3u);
    EXPECT_TRUE(completions[1].first);
    EXPECT_THAT(completions[1].second, IsNull());
    EXPECT_FALSE(completions[2].first);
    EXPECT_THAT(completions[2].second, IsAuthError(3, "server_error"));
    EXPECT_EQ(manager->token(), Value("t3"));
}

}  // namespace
}  // namespace zembra::test
