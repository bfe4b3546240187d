#include <string_view>

#include <gtest/gtest.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>
#include <ZembraCoreSDK/ZembraCoreSDK_vers.h>

namespace zembra {
namespace {

TEST(PublishedConstants, KeepTheirTexts) {
    EXPECT_EQ(reinterpret_cast<const char*>(ZembraCoreSDKVersionString),
              std::string_view("@(#)PROGRAM:ZembraCoreSDK  PROJECT:Zembra-1\n"));
    EXPECT_EQ(ZembraCoreSDKVersionNumber, 1.0);
    EXPECT_STREQ(ZMBSDKClientIDKey, "ZMBSDKClientID");
    EXPECT_STREQ(ZMBSDKBundleIdentifierKey, "CFBundleIdentifier");
}

}  // namespace
}  // namespace zembra
