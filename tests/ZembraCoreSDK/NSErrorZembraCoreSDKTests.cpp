// The error catalogue and the mapping of failures, as tables.

#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

/// A bundle with a text for every key, as a module's error class states its own.
struct ModuleBundle : NSBundle {
    ModuleBundle() : NSBundle(Value()) {}
    std::string localizedStringForKey(std::optional<std::string_view> key, std::optional<std::string_view>,
                                      std::optional<std::string_view>) const override {
        return "the module's " + std::string(*key);
    }
};
class ModuleError : public NSError {
    ZMB_BUNDLE(ModuleError, std::make_shared<ModuleBundle>())
public:
    using NSError::NSError;
};
struct DerivedModuleError : ModuleError {
    using ModuleError::ModuleError;
};

TEST(ErrorFactory, UsesTheClassAndTheBundleOfTheReceivingType) {
    const std::shared_ptr<ModuleError> error = sdkAuthServerSideError<ModuleError>();
    EXPECT_THAT(error, IsAuthError(3, "the module's server_error"));
    // A bundle is stated by each class for itself.
    EXPECT_THAT(sdkAuthServerSideError<DerivedModuleError>(), IsAuthError(3, "server_error"));
}

TEST(ErrorFactory, PlainErrorsTakeNoTextFromTheHost) {
    NSBundle::setMainBundle(std::make_shared<ModuleBundle>());
    const std::tuple<NSErrorPtr, NSInteger, const char*> rows[] = {
        {sdkAuthNetworkError(makeError("cause")), 0, "network_error"},
        {sdkAuthWrongInformationError(), 1, "wrong_information"},
        {sdkAuthUnauthorizedError(), 2, "app_unauthorized_error"},
        {sdkAuthServerSideError(), 3, "server_error"},
        {ZMBCoreErrorWithResponse(nullptr, 500), 3, "internal_error"},
        {sdkAuthServerSideError<DerivedModuleError>(), 3, "the module's server_error"},  // it has no bundle
    };
    for (const auto& [error, code, message] : rows)
        EXPECT_THAT(error, IsAuthError(code, message));
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
    for (const auto& [status, message] : {std::pair(401, "app_unauthorized_error"), {500, "internal_error"}})
        EXPECT_EQ(ZMBCoreErrorWithResponse(nullptr, withStatus(status))->userInfo(),
                  Value::dictionary({{"error message", message}}));
}

}  // namespace
}  // namespace zembra
