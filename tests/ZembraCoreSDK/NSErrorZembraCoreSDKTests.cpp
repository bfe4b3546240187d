// The error catalogue and the mapping of failures, as tables.

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <gmock/gmock.h>

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

#include "support/ErrorMatchers.h"

namespace zembra {
namespace {

using test::IsAuthError;
using ::testing::Eq;
using ::testing::IsNull;

NSErrorPtr makeError(const char* domain, Value userInfo = {}) {
    return NSError::errorWithDomain(domain, -7, std::move(userInfo));
}

// The catalogue's codes and message keys, each where it comes from: ZMBSDKAuthManagerTests.cpp.
TEST(ErrorFactory, TakesAnyCodeAndLetsTheCallersEntriesWin) {
    EXPECT_STREQ(ZMBSDKErrorDomainAuth, "ZMBSDKErrorDomainAuth");
    EXPECT_THAT(authErrorWithCode(-12345, "some_key"), IsAuthError(-12345, "some_key"));
    EXPECT_EQ(authErrorWithCode(3, std::nullopt)->userInfo(), Value::dictionary({{"error message", ""}}));
    for (const Value& message : {Value("a text of my own"), Value::null()}) {
        const Value own = Value::dictionary({{"error message", message}, {"attempt", 2}});
        EXPECT_EQ(authErrorWithCode(3, "server_error", own)->userInfo(), own);
    }
}

/// A bundle with a text for every key, as a module states its own for its error class.
class OwnedBundle : public NSBundle {
public:
    explicit OwnedBundle(std::string owner) : NSBundle(Value()), owner_(std::move(owner)) {}

    std::string localizedStringForKey(std::optional<std::string_view> key, std::optional<std::string_view>,
                                      std::optional<std::string_view>) const override {
        return owner_ + "'s " + std::string(*key);
    }

private:
    std::string owner_;
};
class ModuleError : public NSError {
    ZMB_BUNDLE(ModuleError, std::make_shared<OwnedBundle>("module"))
public:
    using NSError::NSError;
};
struct BundlelessError : ModuleError {
    using ModuleError::ModuleError;
};

TEST(ErrorFactory, TakesTheTextFromTheBundleOfTheReceivingClassItself) {
    NSBundle::setMainBundle(std::make_shared<OwnedBundle>("host"));
    const std::shared_ptr<ModuleError> error = sdkAuthServerSideError<ModuleError>();
    EXPECT_THAT(error, IsAuthError(3, "module's server_error"));
    EXPECT_THAT(sdkAuthServerSideError<BundlelessError>(), IsAuthError(3, "host's server_error"));
    EXPECT_THAT(sdkAuthServerSideError(), IsAuthError(3, "server_error")) << "the platform's bundle";
}

TEST(ErrorMapping, TriesItsRowsInOrder) {
    const NSErrorPtr cause = makeError("cause");
    const auto withStatus = [](NSInteger status) -> Value {
        return std::make_shared<NSHTTPURLResponse>(NSURL::URLWithString(""), status,
                                                   NSHTTPURLResponse::HeaderFields());
    };
    const auto withResponse = [&cause](const char* domain, const Value& response) {
        return makeError(domain,
                         Value::dictionary({{AFNetworkingOperationFailingURLResponseErrorKey, response},
                                            {NSUnderlyingErrorKey, cause}}));
    };
    const std::pair<NSErrorPtr, ::testing::Matcher<NSErrorPtr>> rows[] = {
        {nullptr, IsNull()},
        {withResponse(NSURLErrorDomain, withStatus(401)), IsAuthError(0, "network_error")},
        {withResponse(kCFErrorDomainCFNetwork, withStatus(401)), IsAuthError(0, "network_error")},
        {withResponse("nsurlerrordomain", withStatus(401)), IsAuthError(2, "app_unauthorized_error")},
        {withResponse("client", withStatus(403)), IsAuthError(3, "internal_error")},
        {withResponse("client", Value::null()), IsAuthError(3, "internal_error")},
        {withResponse("client", 401), IsAuthError(3, "internal_error")},
        {makeError("client", Value::dictionary({{NSUnderlyingErrorKey, cause}})), Eq(cause)},
        {makeError("client", Value::dictionary({{NSUnderlyingErrorKey, "no error"}})), IsNull()},
        {makeError("client", Value::dictionary({})), IsNull()},
        {cause, Eq(cause)},
    };
    for (const auto& [error, mapped] : rows)
        EXPECT_THAT(ZMBAuthError(error), mapped) << ::testing::PrintToString(error);
    EXPECT_FALSE(isNetworkError(nullptr));

    const NSErrorPtr& error = rows[1].first;
    EXPECT_EQ(ZMBAuthError(error)->userInfo(),
              Value::dictionary({{"error message", "network_error"}, {NSUnderlyingErrorKey, error}}));
    EXPECT_EQ(ZMBCoreErrorWithResponse(nullptr, withStatus(500))->userInfo(),
              Value::dictionary({{"error message", "internal_error"}}));
}

}  // namespace
}  // namespace zembra
