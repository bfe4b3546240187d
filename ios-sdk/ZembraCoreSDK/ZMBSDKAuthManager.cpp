// The shared manager: its once-only set-up, the app token exchange and the member token refresh. It is used
// on the thread that drains the main queue.

#include <utility>

#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>
#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/UIDevice.h>

namespace zembra {

extern "C" {
const char ZMBSDKClientIDKey[] = "ZMBSDKClientID";
const char ZMBSDKBundleIdentifierKey[] = "CFBundleIdentifier";
}

namespace {

constexpr NSTimeInterval kTimeout{2.0};
constexpr const char* kAbsentText = "(null)";
constexpr const char* kAuthorization = "Authorization";

/// Makes every request of `client` as the platform expects it.
void configureClient(AFHTTPSessionManager& client) {
    AFHTTPRequestSerializer& requests = client.requestSerializer();
    requests.setTimeoutInterval(kTimeout);

    const Value version = NSBundle::bundleForClass<ZMBSDKAuthManager>()->objectForInfoDictionaryKey(
        "CFBundleShortVersionString");
    requests.setValue("iOS v" + (version.isNothing() ? kAbsentText : version.text()) + " Core",
                      "X-SDK-Version");

    std::optional<std::string> userAgent = requests.valueForHTTPHeaderField("User-Agent");
    if (userAgent) *userAgent += " " + hardwareString(UIDevice::currentDevice()).value_or(kAbsentText);
    requests.setValue(std::move(userAgent), "User-Agent");

    client.responseSerializer().setAcceptableContentTypes({"application/json"});
}

bool hasLengthZero(const Value& value) {
    const auto string = value.string();
    return value.isNothing() || (string && string->empty());
}

/// A form's field, which is a string: any other value is sent as its text, and nothing leaves the field out.
Value fieldOf(const Value& value) {
    return value.isNothing() ? Value() : Value(value.text());
}

/// Issues a request through the client that `manager` has now; without one, `failure` gets its error at once.
void post(const ZMBSDKAuthManager& manager, std::string_view path, const Value& parameters,
          AFHTTPSessionManager::Success success, const ZMBSDKAuthManager::Failure& failure) {
    const auto client = manager.authClient();
    if (!client) {
        failure(sdkAuthWrongInformationError());
        return;
    }
    client->POST(path, parameters, nullptr, std::move(success),
                 [failure](const AFHTTPSessionManager::Task&, const NSErrorPtr& error) {
                     failure(ZMBAuthError(error));
                 });
}

/// Callbacks are mandatory; one that the caller left out is replaced by one that does nothing.
template <class... Arguments>
void replaceIfAbsent(std::function<void(Arguments...)>& callback) {
    if (!callback) callback = [](Arguments...) {};
}

std::shared_ptr<ZMBSDKAuthManager> makeInstance(std::shared_ptr<ZMBSDKAuthManager> (*create)(),
                                                std::string (*cmsAPIHost)()) {
    auto manager = create();
    manager->setAuthClient(std::make_shared<AFHTTPSessionManager>(NSURL::URLWithString(cmsAPIHost())));
    if (const auto client = manager->authClient()) configureClient(*client);
    return manager;
}

}  // namespace

ZMBSDKAuthManager::~ZMBSDKAuthManager() = default;

std::shared_ptr<ZMBSDKAuthManager> ZMBSDKAuthManager::sharedInstance(
    std::shared_ptr<ZMBSDKAuthManager> (*create)(), std::string (*cmsAPIHost)()) {
    // Never destroyed. Where making it throws, nothing stays and the next call starts anew.
    static auto* const instance = new auto(makeInstance(create, cmsAPIHost));
    return *instance;
}

std::string ZMBSDKAuthManager::cmsAPIHost() {
    return ZEMBRA_API_BASE_URL;
}

Value ZMBSDKAuthManager::clientId() const {
    return NSBundle::mainBundle()->objectForInfoDictionaryKey(ZMBSDKClientIDKey);
}

bool ZMBSDKAuthManager::isClientIdInvalid() const {
    return clientId().isNothing() || hasLengthZero(clientId());
}

void ZMBSDKAuthManager::getAuthTokenSuccess(TokenSuccess success, Failure failure) {
    replaceIfAbsent(success);
    replaceIfAbsent(failure);
    const Value bundleIdentifier =
        NSBundle::mainBundle()->objectForInfoDictionaryKey(ZMBSDKBundleIdentifierKey);
    if (bundleIdentifier.isNothing() || isClientIdInvalid()) {
        failure(sdkAuthWrongInformationError());
        return;
    }
    const Value parameters =
        Value::dictionary({{"client_id", fieldOf(clientId())}, {"signature", fieldOf(bundleIdentifier)}});

    // The manager may be gone when the answer comes, or go while it is handled: each step looks for it anew.
    const std::weak_ptr<ZMBSDKAuthManager> weakSelf = weak_from_this();
    post(
        *this, "app/token", parameters,
        [weakSelf, success = std::move(success), failure](const AFHTTPSessionManager::Task&,
                                                          const Value& response) {
            if (const auto self = weakSelf.lock()) self->setToken(response["token"]);
            if (const auto self = weakSelf.lock()) self->setAccountId(response["account_id"]);
            const auto read = [&](Value (ZMBSDKAuthManager::*field)() const) {
                const auto self = weakSelf.lock();
                return self ? (self.get()->*field)() : Value();
            };
            const Value accountId = read(&ZMBSDKAuthManager::accountId);
            const Value token = read(&ZMBSDKAuthManager::token);
            if (accountId.isNothing() || token.isNothing())
                failure(sdkAuthServerSideError());
            else
                success(accountId, token);
        },
        failure);
}

void ZMBSDKAuthManager::setBearerToken(const Value& token) {
    const auto client = authClient();
    if (!client) return;
    client->requestSerializer().setValue(
        token.isNothing() ? std::nullopt : std::optional<std::string>("Bearer " + token.text()),
        kAuthorization);
}

NSErrorPtr ZMBSDKAuthManager::notAllowRefreshError() const {
    if (isClientIdInvalid()) return sdkAuthWrongInformationError();
    if (hasLengthZero(token())) return sdkAuthUnauthorizedError();
    return nullptr;
}

void ZMBSDKAuthManager::refreshMemberToken(std::string refreshToken, RefreshSuccess success,
                                           Failure failure) {
    replaceIfAbsent(success);
    replaceIfAbsent(failure);
    if (const NSErrorPtr error = notAllowRefreshError()) {
        failure(error);
        return;
    }
    const auto client = authClient();
    if (!client) {
        failure(sdkAuthWrongInformationError());
        return;
    }
    // The client takes a request's headers during POST, so this request carries the bearer value and none
    // after it does. The value goes from the client that got it, too, if a callback or an override has put
    // another in place.
    const auto removeBearerToken = [&] {
        client->requestSerializer().setValue(std::nullopt, kAuthorization);
        setBearerToken({});
    };
    try {
        setBearerToken(token());
        post(
            *this, "app/members/token", Value::dictionary({{"refresh_token", refreshToken}}),
            [success = std::move(success), failure](const AFHTTPSessionManager::Task&,
                                                    const Value& response) {
                const Value& memberToken = response["token"];
                if (memberToken.isNothing())
                    failure(sdkAuthServerSideError());
                else
                    success(memberToken);
            },
            failure);
    } catch (...) {
        removeBearerToken();
        throw;
    }
    removeBearerToken();
}

}  // namespace zembra
