#pragma once

// The SDK's error catalogue and the mapping of the HTTP client's failures onto it, for hosts and modules; any
// thread.

#include <concepts>
#include <memory>
#include <optional>
#include <string_view>

#include <ZembraPlatform/NSBundle.h>
#include <ZembraPlatform/NSError.h>

/// The SDK's errors: one domain, four codes, and a message for people under `kZMBSDKErrorInfoKey`.
///
/// The message is looked up in the bundle of the error's class, so it is the host's or the module's to give:
/// derive a class from `NSError`, state its bundle with `ZMB_BUNDLE` and name the class in angle brackets
/// (`sdkAuthServerSideError<MyError>()`). Where that bundle has no text, the message is its key, such as
/// "server_error". So it is for plain `NSError`, whose bundle is the platform's and has none of the five
/// keys, whatever texts the host's own bundle holds.
///
/// All functions are free of state, never fail and may be called from any thread; the caller owns what they
/// return.
namespace zembra {

/// The domain of every SDK error.
extern "C" ZEMBRA_EXPORT const char ZMBSDKErrorDomainAuth[];

/// The key of an SDK error's user information under which its message stands.
extern "C" ZEMBRA_EXPORT const char kZMBSDKErrorInfoKey[];

/// What went wrong, for `switch (error->code())`. The codes are permanent.
enum ZMBSDKErrorCode : NSInteger {
    ZMBSDKErrorNetwork = 0,           ///< The request failed in the network layer: no answer came.
    ZMBSDKErrorWrongInformation = 1,  ///< The host's configuration lacks the client or the bundle identifier.
    ZMBSDKErrorUnauthorized = 2,      ///< There is no app token yet, or the platform answered 401.
    ZMBSDKErrorServerSide = 3,        ///< The platform answered with something that cannot be used.
};

namespace detail {

/// The user information of an SDK error: the message that `bundle` has for `messageKey` (an absent key gives
/// the empty text), then the entries of `userInfo`, which win.
[[nodiscard]] ZEMBRA_EXPORT Value authErrorUserInfo(const NSBundle& bundle,
                                                    std::optional<std::string_view> messageKey,
                                                    const Value& userInfo);

}  // namespace detail

/// An SDK error of class `Error` with any code. `userInfo` is a dictionary or nothing; its entries, one under
/// `kZMBSDKErrorInfoKey` included, win over the looked-up message.
template <std::derived_from<NSError> Error = NSError>
[[nodiscard]] std::shared_ptr<Error> authErrorWithCode(NSInteger code,
                                                       std::optional<std::string_view> messageKey,
                                                       const Value& userInfo = {}) {
    return NSError::errorWithDomain<Error>(
        ZMBSDKErrorDomainAuth, code,
        detail::authErrorUserInfo(*NSBundle::bundleForClass<Error>(), messageKey, userInfo));
}

template <std::derived_from<NSError> Error = NSError>
[[nodiscard]] std::shared_ptr<Error> sdkAuthWrongInformationError() {
    return authErrorWithCode<Error>(ZMBSDKErrorWrongInformation, "wrong_information");
}

template <std::derived_from<NSError> Error = NSError>
[[nodiscard]] std::shared_ptr<Error> sdkAuthUnauthorizedError() {
    return authErrorWithCode<Error>(ZMBSDKErrorUnauthorized, "app_unauthorized_error");
}

template <std::derived_from<NSError> Error = NSError>
[[nodiscard]] std::shared_ptr<Error> sdkAuthServerSideError() {
    return authErrorWithCode<Error>(ZMBSDKErrorServerSide, "server_error");
}

/// A network error whose underlying error is `error` itself.
[[nodiscard]] ZEMBRA_EXPORT NSErrorPtr sdkAuthNetworkError(const NSErrorPtr& error);

/// The SDK error for an answer with a failure status: unauthorized for 401, server side for any other
/// (message key "internal_error"; what is no `NSHTTPURLResponse` has status 0). `error` is not looked at.
[[nodiscard]] ZEMBRA_EXPORT NSErrorPtr ZMBCoreErrorWithResponse(const NSErrorPtr& error,
                                                                const Value& response);

/// What the SDK reports for a failure of the HTTP client; the first that applies:
/// a failure of the network layer becomes a network error; one that carries a response under
/// `AFNetworkingOperationFailingURLResponseErrorKey` what `ZMBCoreErrorWithResponse` makes of it; one with
/// any user information its underlying error as it stands, or `nullptr` where it has none; one without stays
/// as it is. `nullptr` gives `nullptr`.
[[nodiscard]] ZEMBRA_EXPORT NSErrorPtr ZMBAuthError(const NSErrorPtr& error);

}  // namespace zembra
