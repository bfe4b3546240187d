// The error catalogue and the mapping of the HTTP client's failures; any thread.

#include <utility>
#include <vector>

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

namespace zembra {

extern "C" {
const char ZMBSDKErrorDomainAuth[] = "ZMBSDKErrorDomainAuth";
const char kZMBSDKErrorInfoKey[] = "error message";
}

Value detail::authErrorUserInfo(const NSBundle& bundle, std::optional<std::string_view> messageKey,
                                const Value& userInfo) {
    const auto added = userInfo.entries();
    std::vector<Value::Entry> entries;
    entries.reserve(1 + added.size());
    entries.push_back({kZMBSDKErrorInfoKey, bundle.localizedStringForKey(messageKey, "", std::nullopt)});
    entries.insert(entries.end(), added.begin(), added.end());
    return Value::dictionary(std::move(entries));
}

NSErrorPtr sdkAuthNetworkError(const NSErrorPtr& error) {
    return authErrorWithCode(ZMBSDKErrorNetwork, "network_error",
                             Value::dictionary({{NSUnderlyingErrorKey, error}}));
}

NSErrorPtr ZMBCoreErrorWithResponse(const NSErrorPtr& /*error*/, const Value& response) {
    constexpr NSInteger kUnauthorizedStatus = 401;
    const auto httpResponse = response.as<NSHTTPURLResponse>();
    if (httpResponse && httpResponse->statusCode() == kUnauthorizedStatus)
        return authErrorWithCode(ZMBSDKErrorUnauthorized, "app_unauthorized_error");
    return authErrorWithCode(ZMBSDKErrorServerSide, "internal_error");
}

NSErrorPtr ZMBAuthError(const NSErrorPtr& error) {
    if (!error) return nullptr;
    if (isNetworkError(error)) return sdkAuthNetworkError(error);
    const Value& userInfo = error->userInfo();
    const Value& response = userInfo[AFNetworkingOperationFailingURLResponseErrorKey];
    if (!response.isNothing()) return ZMBCoreErrorWithResponse(error, response);
    if (userInfo.isDictionary()) return userInfo[NSUnderlyingErrorKey].as<NSError>();
    return error;
}

}  // namespace zembra
