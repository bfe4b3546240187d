// The shared manager's operations over real HTTPS: what goes over the wire, and what the caller sees of it.
// CTest runs each test in a process of its own, so that each makes the manager anew.

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/UIDevice.h>

#include "examples/SandboxHost.h"
#include "support/ErrorMatchers.h"

namespace {

// What is asked of the environment: this program puts its own version of getenv in place.
std::atomic<std::size_t> askedCount = 0;
char asked[64][64];  // no constructor: the first calls come before any

}  // namespace

extern "C" __attribute__((visibility("default"))) char* getenv(const char* name) noexcept {
    static const auto original = reinterpret_cast<char* (*)(const char*)>(::dlsym(RTLD_NEXT, "getenv"));
    if (const std::size_t index = askedCount++; index < std::size(asked))
        std::snprintf(asked[index], sizeof asked[index], "%s", name);
    return original(name);
}

namespace zembra::test {
namespace {

using namespace std::literals;
using namespace ::testing;
using sandbox::Exchange;
using Error = Matcher<NSErrorPtr>;
using Values = std::vector<Value>;

const std::thread::id kMainThread = std::this_thread::get_id();

/// What the callbacks of one call have received.
struct Received {
    int callbacks = 0;
    NSErrorPtr error;
    Values values;

    void take(const NSErrorPtr& received) { error = received; }
    void take(const Value& received) { values.push_back(received); }
};
using ReceivedPtr = std::shared_ptr<Received>;

/// A callback of any kind.
auto callback(const ReceivedPtr& outcome) {
    return [outcome](const auto&... received) {
        EXPECT_EQ(std::this_thread::get_id(), kMainThread);
        ++outcome->callbacks;
        (outcome->take(received), ...);
    };
}

ReceivedPtr startExchange(ZMBSDKAuthManager& manager) {
    auto outcome = std::make_shared<Received>();
    manager.getAuthTokenSuccess(callback(outcome), callback(outcome));
    return outcome;
}

ReceivedPtr startRefresh(ZMBSDKAuthManager& manager, std::string refreshToken = "sandbox.member") {
    auto outcome = std::make_shared<Received>();
    manager.refreshMemberToken(std::move(refreshToken), callback(outcome), callback(outcome));
    return outcome;
}

/// Drains the main queue until the call has its outcome, and then all that is still to come.
Received await(const ReceivedPtr& outcome) {
    EXPECT_TRUE(MainQueue::shared().runUntil([&] { return outcome->callbacks > 0; }, 30s));
    MainQueue::shared().drain();
    EXPECT_EQ(outcome->callbacks, 1);
    return *outcome;
}

/// The value that the client's next request carries.
std::optional<std::string> authorizationOf(AFHTTPSessionManager& client) {
    return client.requestSerializer().valueForHTTPHeaderField("Authorization");
}

/// Makes the process's main bundle one with these two identifiers; nothing leaves the key out.
void setHostBundle(const Value& clientId, const Value& bundleIdentifier) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{"ZMBSDKClientID", clientId}, {"CFBundleIdentifier", bundleIdentifier}})));
}

/// A registered host with a server of its own.
class ExchangeTest : public Test {
protected:
    ExchangeTest() { setHostBundle("sandbox.demo", "com.example.host"); }

    const examples::SandboxHost sandbox;
    const sandbox::SandboxServer& server = sandbox.server();
    const std::shared_ptr<ZMBSDKAuthManager> manager = ZMBSDKAuthManager::sharedManager();

    std::optional<std::string> authorization() const { return authorizationOf(*manager->authClient()); }

    /// What the server's last answer has under `key`; nothing where it is no dictionary.
    Value answered(std::string_view key) const {
        return NSJSONSerialization::JSONObjectWithData(server.exchanges().back().answer)[key];
    }

    const Error none = IsNull();
    const Error network = IsAuthError(0, "network_error");
    const Error wrong = IsAuthError(1, "wrong_information");
    const Error unauthorized = IsAuthError(2, "app_unauthorized_error");
    const Error serverSide = IsAuthError(3, "server_error");
    const Error internal = IsAuthError(3, "internal_error");
};

// What a call needs and sends
// -------------------------------------------------------------------------------------------------------

TEST_F(ExchangeTest, ConfiguringRegistersTheHost) {
    setHostBundle("client & söhne+1", "com.example/host?");
    const auto outcome = std::make_shared<Received>();
    ZMBApplication::configureApplication(callback(outcome));
    EXPECT_THAT(await(outcome).error, none);
    const Exchange exchange = server.exchanges().front();
    EXPECT_EQ(exchange.method, "POST");
    EXPECT_EQ(exchange.target, "/api/v1/app/token");
    EXPECT_THAT(exchange.parameters,
                ElementsAre(Pair("client_id", "client & söhne+1"), Pair("signature", "com.example/host?")));
    EXPECT_EQ(exchange.header("X-SDK-Version"), "iOS v" ZEMBRA_TEST_PROJECT_VERSION " Core");
    EXPECT_THAT(exchange.header("User-Agent").value_or(""),
                EndsWith(" " + *hardwareString(UIDevice::currentDevice())));

    setHostBundle("", "com.example.host");
    ZMBApplication::configureApplication(callback(outcome));
    ZMBApplication::configureApplication(nullptr);  // no crash
    EXPECT_THAT(outcome->values, ElementsAre(Value(true), Value(false))) << "before the call returns";
    EXPECT_THAT(outcome->error, wrong);
}

TEST_F(ExchangeTest, CallsAreRefusedBeforeTheyReturnWithoutWhatTheyNeed) {
    const struct {
        Value clientId, bundleIdentifier, token;
        Error ofExchange, ofRefresh;
    } cases[] = {
        {{}, "host", "app-token", wrong, wrong},
        {"", "host", {}, wrong, wrong},
        {"client-1", {}, "", wrong, unauthorized},
        {"client-1", {}, "app-token", wrong, none},
        {"client-1", "", {}, none, unauthorized},
        {" ", "", " ", none, none},
        {42, 43, 0, none, none},
        {Value::null(), "host", Value::null(), none, none},
    };
    for (const auto& [clientId, bundleIdentifier, token, ofExchange, ofRefresh] : cases) {
        SCOPED_TRACE(Value::array({clientId, bundleIdentifier, token}));
        setHostBundle(clientId, bundleIdentifier);
        manager->setToken(token);
        manager->setBearerToken("someone's");
        const ReceivedPtr refresh = startRefresh(*manager, "");
        EXPECT_THAT(refresh->error, ofRefresh);
        EXPECT_EQ(authorization(), refresh->error ? std::optional("Bearer someone's") : std::nullopt);
        if (!refresh->error) {
            await(refresh);
            EXPECT_THAT(server.exchanges().back().parameters, ElementsAre(Pair("refresh_token", "")));
        }
        const ReceivedPtr exchange = startExchange(*manager);
        EXPECT_THAT(exchange->error, ofExchange);
        EXPECT_EQ(manager->token(), token);
        if (exchange->error) continue;
        EXPECT_THAT(await(exchange).error, none);
        EXPECT_THAT(
            server.exchanges().back().parameters,
            ElementsAre(Pair("client_id", clientId.text()), Pair("signature", bundleIdentifier.text())));
    }
    EXPECT_EQ(server.exchangeCount(), 8u) << "nothing of what was refused";
}

TEST_F(ExchangeTest, ManagersWithoutAnHTTPClientRefuseCallsAfterTheOtherTests) {
    const auto own = std::make_shared<ZMBSDKAuthManager>();
    own->setBearerToken("abc");  // nothing to set it on
    EXPECT_THAT(startExchange(*own)->error, wrong);
    EXPECT_THAT(startRefresh(*own)->error, unauthorized);
    own->setToken("app-token");
    EXPECT_THAT(startRefresh(*own)->error, wrong);
}

class HostBundle : public NSBundle {
public:
    HostBundle() : NSBundle(Value()) {}
    MOCK_METHOD(Value, objectForInfoDictionaryKey, (std::string_view key), (const, override));
};

TEST_F(ExchangeTest, LooksIdentifiersUpAnewInAFixedOrder) {
    // What comes of it where the identifiers, the bundle's first, are there so many times and no more.
    const Error errors[] = {wrong, wrong, wrong, internal, none};
    for (int present = 0; present < 5; ++present) {
        const auto bundle = std::make_shared<StrictMock<HostBundle>>();
        const InSequence inOrder;
        for (int look = 0; look < std::min(present + 1, 4); ++look) {
            const char* const key = look == 0 ? "CFBundleIdentifier" : "ZMBSDKClientID";
            const Value identifier = look < present ? "x" : Value();
            EXPECT_CALL(*bundle, objectForInfoDictionaryKey(key)).WillOnce(Return(identifier));
        }
        NSBundle::setMainBundle(bundle);
        EXPECT_THAT(await(startExchange(*manager)).error, errors[present]);
        setHostBundle({}, {});
    }
    EXPECT_THAT(server.exchanges().front().parameters, ElementsAre(Pair("signature", "x"))) << "left out";
}

TEST_F(ExchangeTest, BearerTokensSetAndRemoveTheHeader) {
    manager->setBearerToken("");
    EXPECT_EQ(authorization(), "Bearer ");
    manager->setBearerToken({});
    EXPECT_EQ(authorization(), std::nullopt);
    manager->setBearerToken(Value::null());
    EXPECT_EQ(authorization(), "Bearer null");
}

TEST(Environment, OnlyListedVariablesAreReadAndNoFileIsWritten) {
    setHostBundle("sandbox.unauthorized", "com.example.host");
    askedCount = 0;
    const examples::SandboxHost sandbox;
    // Writing to a regular file would end the process: SIGXFSZ.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit nothing{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &nothing), 0);
    const Received exchange = await(startExchange(*ZMBSDKAuthManager::sharedManager()));
    const std::vector<std::string> names(asked, asked + std::min(askedCount.load(), std::size(asked)));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_THAT(exchange.error, IsAuthError(2, "app_unauthorized_error"));
    EXPECT_THAT(names, Each(AnyOf("LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG", "https_proxy", "HTTPS_PROXY",
                                  "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY", "SSLKEYLOGFILE",
                                  "SIMDJSON_FORCE_IMPLEMENTATION")));
    EXPECT_THAT(names, Contains("https_proxy")) << "the record is of the exchange";
}

// What an answer does
// -----------------------------------------------------------------------------------------------------

// Each way in which an exchange can end, and what the caller sees of it.
TEST_F(ExchangeTest, EveryOutcomeIsTold) {
    const Error malformed = IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorMalformed);
    const struct {
        std::vector<std::string> names;  // the sandbox's "sandbox.<name>"
        Error ofRefresh, ofExchange;
        bool isStored;  // by the exchange; a refresh stores nothing
    } outcomes[] = {
        {{"slow", "null-token", "empty-token", "member"}, none, none, true},
        {{"demo", "unknown"}, internal, none, true},
        {{"expired"}, unauthorized, none, true},
        {{"no-token", "empty-body", "array", "string", "number"}, serverSide, serverSide, true},
        {{"no-account-id"}, internal, serverSide, true},
        {{"unauthorized"}, unauthorized, unauthorized, false},
        {{"refused", "broken", "wrong-content-type"}, internal, internal, false},
        {{"not-json"}, malformed, malformed, false},
        {{"truncated", "reset", "silent"}, network, network, false},
    };
    const Value appToken = await(startExchange(*manager)).values.at(1), account = "earlier account";
    for (const auto& [names, ofRefresh, ofExchange, isStored] : outcomes) {
        for (const std::string& name : names) {
            SCOPED_TRACE(name);
            manager->setToken(appToken);
            manager->setAccountId(account);
            manager->setBearerToken("of the host's own");
            const Received refresh = await(startRefresh(*manager, "sandbox." + name));
            EXPECT_THAT(refresh.error, ofRefresh);
            EXPECT_EQ(refresh.values, refresh.error ? Values() : Values{answered("token")});
            EXPECT_EQ(manager->token(), appToken);
            EXPECT_EQ(manager->accountId(), account);
            EXPECT_EQ(authorization(), std::nullopt);
            EXPECT_EQ(server.exchanges().back().header("Authorization"), "Bearer " + appToken.text());

            manager->setBearerToken("of the host's own");
            setHostBundle("sandbox." + name, "com.example.host");
            const Received exchange = await(startExchange(*manager));
            EXPECT_THAT(exchange.error, ofExchange);
            const Values stored{manager->accountId(), manager->token()};
            EXPECT_EQ(exchange.values, exchange.error ? Values() : stored);
            EXPECT_EQ(stored, isStored ? Values({answered("account_id"), answered("token")})
                                       : Values({account, appToken}));
            EXPECT_EQ(authorization(), "Bearer of the host's own") << "left alone";
            EXPECT_EQ(server.exchanges().back().header("Authorization"), authorization());
        }
    }
}

/// A host's own version of the operations that calls go through.
class HostManager : public ZMBSDKAuthManager {
public:
    MOCK_METHOD(void, setToken, (Value token), (override));
    MOCK_METHOD(void, setAccountId, (Value accountId), (override));
    MOCK_METHOD(Value, accountId, (), (const, override));
    MOCK_METHOD(Value, token, (), (const, override));
    MOCK_METHOD(void, setBearerToken, (const Value& token), (override));
};

TEST_F(ExchangeTest, CallsGoThroughTheManagersOwnOperationsInOrderWhileItLives) {
    auto host = std::make_shared<StrictMock<HostManager>>();
    host->setAuthClient(manager->authClient());
    const std::weak_ptr<ZMBSDKAuthManager> weak = host;
    Value appToken;
    const InSequence inOrder;
    EXPECT_CALL(*host, setToken).WillOnce(SaveArg<0>(&appToken));
    EXPECT_CALL(*host, setAccountId);
    EXPECT_CALL(*host, accountId).WillOnce(Return("read back"));
    EXPECT_CALL(*host, token).WillOnce(Return("this too"));
    EXPECT_CALL(*host, token).Times(2).WillRepeatedly(ReturnPointee(&appToken));
    EXPECT_CALL(*host, setBearerToken).WillOnce([&](const Value& token) { manager->setBearerToken(token); });
    EXPECT_CALL(*host, setBearerToken(Value()));
    EXPECT_CALL(*host, setToken).WillOnce([&host] { host.reset(); });  // gone: not touched again
    EXPECT_THAT(await(startExchange(*host)).values, ElementsAre(Value("read back"), Value("this too")));
    const ReceivedPtr refresh = startRefresh(*host, "sandbox.slow");
    EXPECT_THAT(await(startExchange(*host)).error, serverSide);
    EXPECT_TRUE(weak.expired()) << "the refresh does not hold it either";
    EXPECT_EQ(refresh->callbacks, 0) << "slow";
    EXPECT_THAT(await(refresh).error, none);
}

TEST_F(ExchangeTest, CallbacksMayThrowAndMayBeLeftOut) {
    const auto throws = [](const auto&...) { throw 1; };
    manager->getAuthTokenSuccess(throws, nullptr);
    EXPECT_THROW(MainQueue::shared().runFor(30s), int);
    EXPECT_TRUE(manager->token().isString()) << "stored before";
    manager->refreshMemberToken("sandbox.member", nullptr, nullptr);
    manager->getAuthTokenSuccess(nullptr, nullptr);
    await(startExchange(*manager));  // the queue survives
    ASSERT_TRUE(server.waitForExchanges(4, 30s));
    setHostBundle("", "com.example.host");
    EXPECT_THROW(manager->getAuthTokenSuccess(nullptr, throws), int);
    EXPECT_THROW(manager->refreshMemberToken("sandbox.member", nullptr, throws), int);
    manager->getAuthTokenSuccess(nullptr, nullptr);
    manager->refreshMemberToken("sandbox.member", nullptr, nullptr);
}

/// A host's own client, which sends nothing.
class HostClient : public AFHTTPSessionManager {
public:
    HostClient() : AFHTTPSessionManager(NSURL::URLWithString("")) {}
    MOCK_METHOD(Task, POST, (std::string_view, const Value&, Progress, Success, Failure), (override));
};

TEST(HostsOwnClient, IsAskedWhenTheRequestIsIssuedAndKeepsNoBearerValue) {
    const auto first = std::make_shared<StrictMock<HostClient>>();
    const auto second = std::make_shared<StrictMock<HostClient>>();
    const auto manager = std::make_shared<ZMBSDKAuthManager>();
    const auto replaceClient = [&] { manager->setAuthClient(second); };

    manager->setAuthClient(first);
    const auto bundle = std::make_shared<NiceMock<HostBundle>>();
    ON_CALL(*bundle, objectForInfoDictionaryKey).WillByDefault([&](auto) {
        return replaceClient(), Value(42);
    });
    NSBundle::setMainBundle(bundle);
    const Value texts = Value::dictionary({{"client_id", "42"}, {"signature", "42"}});
    EXPECT_CALL(*second, POST("app/token", texts, _, _, _));
    startExchange(*manager);

    setHostBundle("client", "host");
    manager->setToken("app-token");
    manager->setAuthClient(first);
    EXPECT_CALL(*first, POST).WillOnce([&](auto&&...) {
        EXPECT_EQ(authorizationOf(*first), "Bearer app-token");
        return replaceClient(), nullptr;
    });
    startRefresh(*manager);
    EXPECT_EQ(authorizationOf(*first), std::nullopt) << "though it was replaced";
    EXPECT_CALL(*second, POST).WillOnce(Throw(1));
    EXPECT_THROW(startRefresh(*manager), int);
    EXPECT_EQ(authorizationOf(*second), std::nullopt);
}

// The shared manager
// ------------------------------------------------------------------------------------------------------

TEST(SharedManager, IsMadeOnceByConcurrentFirstCallers) {
    constexpr int kThreads = 64;
    std::barrier start(kThreads);
    std::vector<std::shared_ptr<ZMBSDKAuthManager>> managers(kThreads);
    std::vector<std::jthread> threads;
    for (auto& manager : managers) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            manager = ZMBSDKAuthManager::sharedManager();
        });
    }
    threads.clear();
    EXPECT_EQ(std::set(managers.begin(), managers.end()).size(), 1u);

    AFHTTPSessionManager& client = *managers[0]->authClient();
    EXPECT_EQ(client.baseURL().absoluteString(), ZMBSDKAuthManager::cmsAPIHost());
    EXPECT_THAT(ZMBSDKAuthManager::cmsAPIHost(), MatchesRegex("https://[^/?#@]+/api/v1/"));
    EXPECT_EQ(client.requestSerializer().timeoutInterval().count(), 2.0);
    EXPECT_THAT(client.responseSerializer().acceptableContentTypes(), ElementsAre("application/json"));
}

/// Its endpoint cannot be told at first, and its client has no "User-Agent" of its own.
class AgentlessManager : public ZMBSDKAuthManager {
public:
    AgentlessManager() { ++count; }
    ~AgentlessManager() override { --count; }
    static std::string cmsAPIHost() {
        return std::exchange(isUndecided, false) ? throw 1 : "https://a.example/";
    }

    static inline int count = 0;
    static inline bool isUndecided = true;

private:
    void setAuthClient(std::shared_ptr<AFHTTPSessionManager> client) override {
        client->requestSerializer().setValue(std::nullopt, "User-Agent");
        ZMBSDKAuthManager::setAuthClient(std::move(client));
    }
};

TEST(SharedManager, HasTheTypeOfTheFirstCallThatSucceeds) {
    EXPECT_THROW((void)ZMBSDKAuthManager::sharedManager<AgentlessManager>(), int);
    EXPECT_EQ(AgentlessManager::count, 0) << "no half-made one stays";
    const auto manager = ZMBSDKAuthManager::sharedManager<AgentlessManager>();
    EXPECT_NE(std::dynamic_pointer_cast<AgentlessManager>(manager), nullptr);
    EXPECT_EQ(ZMBSDKAuthManager::sharedManager(), manager);
    EXPECT_EQ(manager->authClient()->requestSerializer().valueForHTTPHeaderField("User-Agent"), std::nullopt)
        << "removed, not made, where the client has none";
}

TEST(VersionSymbols, KeepTheirValues) {
    EXPECT_STREQ(reinterpret_cast<const char*>(ZembraCoreSDKVersionString),
                 "@(#)PROGRAM:ZembraCoreSDK  PROJECT:Zembra-1\n");
    EXPECT_EQ(ZembraCoreSDKVersionNumber, 1.0);
}

}  // namespace
}  // namespace zembra::test
