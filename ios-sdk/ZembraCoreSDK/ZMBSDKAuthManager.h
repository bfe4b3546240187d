#pragma once

// The shared manager, which hosts and sibling modules ask for the credentials and for a member token refresh,
// on the thread that drains the main queue.

#include <concepts>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSBundle.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// The keys of the host's bundle configuration under which its client and its bundle identifier stand.
extern "C" ZEMBRA_EXPORT const char ZMBSDKClientIDKey[];
extern "C" ZEMBRA_EXPORT const char ZMBSDKBundleIdentifierKey[];

/// The bundle that holds the SDK's own version, apart from the host's.
[[nodiscard]] ZEMBRA_EXPORT std::shared_ptr<NSBundle> coreSDKBundle();

/// Holds the app token and the account identifier for the host and for sibling modules, and the HTTP client
/// through which every request of the SDK goes.
///
/// There is one shared manager. Its fields and operations are not locked: use them on the thread that drains
/// the main queue, where the answers arrive too. Only `sharedManager` may be called from any thread.
///
/// A callback that throws: one that runs before the call returns throws out of the call; one that runs later
/// throws out of the completion queue's task, so on the main queue out of `drain` or `run…`, which may be
/// called again. The credentials are stored by then. On a completion queue that runs tasks on the client's
/// own thread, it ends the process.
///
/// A host derives from the class to reach another server (`cmsAPIHost`) or to put its own version of an
/// operation in place; the SDK goes through the virtual operations, never to the fields.
class ZEMBRA_EXPORT ZMBSDKAuthManager : public NSObject,
                                        public std::enable_shared_from_this<ZMBSDKAuthManager> {
    ZMB_BUNDLE(ZMBSDKAuthManager, coreSDKBundle())

public:
    using TokenSuccess = std::function<void(const Value& accountId, const Value& token)>;
    using RefreshSuccess = std::function<void(const Value& memberToken)>;
    using Failure = std::function<void(const NSErrorPtr& error)>;

    /// The one shared manager. The first call in the process makes it, as a `Manager`, with an HTTP client
    /// for `Manager::cmsAPIHost()`; later calls give that instance, whatever class they name, so a host with
    /// a class of its own calls `sharedManager<MyManager>()` before anything else. Callers that arrive
    /// meanwhile wait; a `cmsAPIHost` that calls back here waits for ever. What `cmsAPIHost` or a constructor
    /// throws reaches the caller, and the next call starts anew. The instance lives until the process ends.
    template <std::derived_from<ZMBSDKAuthManager> Manager = ZMBSDKAuthManager>
    [[nodiscard]] static std::shared_ptr<ZMBSDKAuthManager> sharedManager() {
        return sharedInstance(
            []() -> std::shared_ptr<ZMBSDKAuthManager> { return std::make_shared<Manager>(); },
            [] { return Manager::cmsAPIHost(); });
    }

    /// The API base endpoint, chosen when the SDK was built: an https URL with the path "/api/v1/".
    [[nodiscard]] static std::string cmsAPIHost();

    /// A manager of one's own has no account identifier, no token and no HTTP client. Make it with
    /// `std::make_shared`: an answer is stored in a manager that is still owned by someone.
    ZMBSDKAuthManager() = default;
    ~ZMBSDKAuthManager() override;
    ZMBSDKAuthManager(const ZMBSDKAuthManager&) = delete;
    ZMBSDKAuthManager& operator=(const ZMBSDKAuthManager&) = delete;

    /// What the last answer to an app token exchange held, as it held it; nothing before that, and for what
    /// the answer lacked. Meant to be strings.
    [[nodiscard]] virtual Value accountId() const { return accountId_; }
    virtual void setAccountId(Value accountId) { accountId_ = std::move(accountId); }
    [[nodiscard]] virtual Value token() const { return token_; }
    virtual void setToken(Value token) { token_ = std::move(token); }

    /// The HTTP client; `nullptr` in a manager of one's own.
    [[nodiscard]] virtual std::shared_ptr<AFHTTPSessionManager> authClient() const { return authClient_; }
    virtual void setAuthClient(std::shared_ptr<AFHTTPSessionManager> client) {
        authClient_ = std::move(client);
    }

    /// The host's client identifier, looked up in the main bundle at every call; nothing where it has none.
    [[nodiscard]] virtual Value clientId() const;

    /// Whether the client identifier is missing or the empty string. It is looked up twice where it is
    /// present.
    [[nodiscard]] virtual bool isClientIdInvalid() const;

    /// Exchanges the host's client and bundle identifier for an app token and an account identifier.
    ///
    /// Exactly one callback runs, once. `failure` runs before the call returns, with
    /// `sdkAuthWrongInformationError`, where the configuration lacks an identifier (or this manager an HTTP
    /// client). Otherwise one of them runs later, on the client's completion queue. An answer replaces
    /// account identifier and token, the one that it lacks by nothing; with both, `success` gets them as they
    /// stand in the manager then, else `failure` gets `sdkAuthServerSideError`. A failed request leaves both
    /// as they were; `failure` gets what `ZMBAuthError` makes of it. Null and the empty string count as
    /// present. The request does not keep the manager alive. Identifiers that are no strings are sent as
    /// their text.
    virtual void getAuthTokenSuccess(TokenSuccess success, Failure failure);

    /// Makes the HTTP client's requests from now on carry "Authorization: Bearer " and the token's text;
    /// nothing removes the header. Without an HTTP client it does nothing.
    virtual void setBearerToken(const Value& token);

    /// Why a member's token cannot be refreshed now: `sdkAuthWrongInformationError` where the client
    /// identifier is missing or empty, else `sdkAuthUnauthorizedError` where there is no app token or an
    /// empty one. `nullptr` where it can.
    [[nodiscard]] virtual NSErrorPtr notAllowRefreshError() const;

    /// Trades a member's refresh token, of any bytes, for a new member token.
    ///
    /// Exactly one callback runs, once. `failure` runs before the call returns, with
    /// `notAllowRefreshError()`, where that gives one. Otherwise one of them runs later, on the client's
    /// completion queue: `success` with the answer's member token as it stands there (null and the empty
    /// string included), or `failure` with `sdkAuthServerSideError` for an answer without one, or with what
    /// `ZMBAuthError` makes of a failed request. Nothing is stored, and the request does not need the manager
    /// to live on.
    ///
    /// The request carries the app token as its bearer value; when the call returns, the client has no bearer
    /// value, whoever had set one, also when it throws. Overlapping calls from two threads can take each
    /// other's bearer value away.
    virtual void refreshMemberToken(std::string refreshToken, RefreshSuccess success, Failure failure);

private:
    static std::shared_ptr<ZMBSDKAuthManager> sharedInstance(std::shared_ptr<ZMBSDKAuthManager> (*create)(),
                                                             std::string (*cmsAPIHost)());

    Value accountId_;
    Value token_;
    std::shared_ptr<AFHTTPSessionManager> authClient_;
};

}  // namespace zembra
