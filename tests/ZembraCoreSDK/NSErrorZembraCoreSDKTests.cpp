#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/NSError+ZMBUtility.h>
#include <ZembraCoreSDK/NSError+ZembraCoreSDK.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

#include "support/ErrorMatchers.h"

namespace zembra {
namespace {

using test::IsAuthError;
using ::testing::IsNull;

/// A module's bundle with texts of its own, as a module's error class states it.
class ModuleBundle : public NSBundle {
public:
    ModuleBundle() : NSBundle(Value()) {}

    std::string localizedStringForKey(std::optional<std::string_view> key,
                                      std::optional<std::string_view> value,
                                      std::optional<std::string_view> table) const override {
        if (key == "server_error") return "Der Dienst ist gestört.";
        return NSBundle::localizedStringForKey(key, value, table);
    }
};

class ModuleError : public NSError {
    ZMB_BUNDLE(ModuleError, std::make_shared<ModuleBundle>())
public:
    using NSError::NSError;
};

class DerivedModuleError : public ModuleError {
public:
    using ModuleError::ModuleError;
};

NSErrorPtr makeError(const char* domain, Value userInfo = {}) {
    return NSError::errorWithDomain(domain, -7, std::move(userInfo));
}

Value responseWithStatus(NSInteger status) {
    return std::make_shared<NSHTTPURLResponse>(NSURL::URLWithString("https://host/"), status,
                                               NSHTTPURLResponse::HeaderFields());
}

TEST(ErrorCatalogue, HasFourCodesAndFiveMessageKeys) {
    const NSErrorPtr transportError = makeError(NSURLErrorDomain);
    EXPECT_EQ(
        sdkAuthNetworkError(transportError)->userInfo(),
        Value::dictionary({{"error message", "network_error"}, {NSUnderlyingErrorKey, transportError}}));
    EXPECT_THAT(sdkAuthNetworkError(transportError), IsAuthError(0, "network_error"));
    EXPECT_THAT(sdkAuthWrongInformationError(), IsAuthError(1, "wrong_information"));
    EXPECT_THAT(sdkAuthUnauthorizedError(), IsAuthError(2, "app_unauthorized_error"));
    EXPECT_THAT(sdkAuthServerSideError(), IsAuthError(3, "server_error"));
    EXPECT_STREQ(ZMBSDKErrorDomainAuth, "ZMBSDKErrorDomainAuth");
    EXPECT_EQ(sdkAuthWrongInformationError()->userInfo().count(), 1u);
}

TEST(ErrorFactory, TakesAnyCodeAndLetsTheCallersEntriesWin) {
    EXPECT_THAT(authErrorWithCode(-12345, "some_key"), IsAuthError(-12345, "some_key"));
    EXPECT_THAT(authErrorWithCode(3, std::nullopt), IsAuthError(3, ""));
    for (const Value& message : {Value("a text of my own"), Value::null()}) {
        const Value own = Value::dictionary({{"error message", message}, {"attempt", 2}});
        EXPECT_EQ(authErrorWithCode(3, "server_error", own)->userInfo(), own);
    }
}

TEST(ErrorFactory, UsesTheClassAndTheBundleOfTheReceivingType) {
    const std::shared_ptr<ModuleError> error = sdkAuthServerSideError<ModuleError>();
    EXPECT_THAT(error, IsAuthError(3, "Der Dienst ist gestört."));
    EXPECT_THAT(sdkAuthUnauthorizedError<ModuleError>(), IsAuthError(2, "app_unauthorized_error"));
    // A bundle is stated by each class for itself.
    EXPECT_THAT(sdkAuthServerSideError<DerivedModuleError>(), IsAuthError(3, "server_error"));
}

TEST(ErrorMapping, TriesItsRowsInOrder) {
    constexpr const char* kResponse = AFNetworkingOperationFailingURLResponseErrorKey;
    const NSErrorPtr cause = makeError("cause");
    for (const char* domain : {NSURLErrorDomain, kCFErrorDomainCFNetwork}) {
        const NSErrorPtr error = makeError(domain, Value::dictionary({{kResponse, responseWithStatus(401)}}));
        const NSErrorPtr mapped = ZMBAuthError(error);
        EXPECT_TRUE(isNetworkError(error));
        EXPECT_THAT(mapped, IsAuthError(0, "network_error")) << domain;
        EXPECT_EQ(mapped->userInfo()[NSUnderlyingErrorKey].as<NSError>(), error) << "the very error";
    }
    EXPECT_FALSE(isNetworkError(makeError("nsurlerrordomain")));
    EXPECT_FALSE(isNetworkError(nullptr));

    EXPECT_THAT(ZMBAuthError(makeError("client", Value::dictionary({{kResponse, responseWithStatus(401)},
                                                                    {NSUnderlyingErrorKey, cause}}))),
                IsAuthError(2, "app_unauthorized_error"));
    for (const Value& response : {responseWithStatus(403), responseWithStatus(500), responseWithStatus(200),
                                  Value::null(), Value(401)}) {
        const NSErrorPtr mapped = ZMBAuthError(
            makeError("client", Value::dictionary({{kResponse, response}, {NSUnderlyingErrorKey, cause}})));
        EXPECT_THAT(mapped, IsAuthError(3, "internal_error")) << response;
        EXPECT_EQ(mapped->userInfo().count(), 1u) << response;
    }
    EXPECT_THAT(ZMBCoreErrorWithResponse(nullptr, responseWithStatus(500)), IsAuthError(3, "internal_error"));

    EXPECT_EQ(ZMBAuthError(makeError("client", Value::dictionary({{NSUnderlyingErrorKey, cause}}))), cause);
    for (const Value& userInfo : {Value::dictionary({{NSUnderlyingErrorKey, "no error"}}),
                                  Value::dictionary({{"other", 1}}), Value::dictionary({})})
        EXPECT_THAT(ZMBAuthError(makeError("client", userInfo)), IsNull()) << userInfo;
    const NSErrorPtr bare = makeError("client");
    EXPECT_EQ(ZMBAuthError(bare), bare);
    EXPECT_THAT(ZMBAuthError(nullptr), IsNull());
}

}  // namespace
}  // namespace zembra
