// The device's identifier and its names, with the system call and the SDK's version made up.

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>
#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/sysctl.h>

namespace zembra {

namespace {

/// What the system call below leaves in the buffer, and returns.
std::string systemAnswer;
int systemStatus = 0;
int systemCalls = 0;

}  // namespace

/// Takes the place of the library's own for this program.
int sysctl(const int* name, unsigned nameLength, void* oldValue, std::size_t* oldLength, const void* newValue,
           std::size_t newLength) noexcept {
    EXPECT_TRUE(nameLength == 2 && name[0] == 6 && name[1] == 1);
    EXPECT_EQ(*oldLength, 100u);
    EXPECT_TRUE(newValue == nullptr && newLength == 0);
    ++systemCalls;
    std::memcpy(oldValue, systemAnswer.data(), std::min(*oldLength, systemAnswer.size()));
    return systemStatus;
}

/// The same for the bundle with the SDK's version: here one without it.
std::shared_ptr<NSBundle> coreSDKBundle() {
    return std::make_shared<NSBundle>(Value());
}

namespace {

TEST(HardwareString, IsWhatTheBufferHolds) {
    const std::pair<std::string, std::optional<std::string>> answers[] = {
        {"iPhone7,2", "iPhone7,2"},
        {"", ""},
        {std::string(200, 'x'), std::string(100, 'x')},  // nothing beyond the buffer is read
        {"iPhone\xFF", std::nullopt},
    };
    for (const int status : {0, -1}) {  // which is not examined
        for (const auto& [answer, string] : answers) {
            systemAnswer = answer;
            systemStatus = status;
            EXPECT_EQ(hardwareString(UIDevice::currentDevice()), string);
            EXPECT_EQ(hardwareString(nullptr), string) << "the device is not consulted";
        }
    }
    EXPECT_EQ(systemCalls, 16) << "one each";
}

TEST(PlatfromString, NamesTheModels) {
    const std::pair<const char*, const char*> models[] = {
        {"iPhone1,1", "iPhone 1G"},
        {"iPhone1,2", "iPhone 3G"},
        {"iPhone2,1", "iPhone 3GS"},
        {"iPhone3,1", "iPhone 4"},
        {"iPhone3,3", "Verizon iPhone 4"},
        {"iPhone4,1", "iPhone 4S"},
        {"iPhone5,1", "iPhone 5 (GSM)"},
        {"iPhone5,2", "iPhone 5 (GSM+CDMA)"},
        {"iPhone5,3", "iPhone 5c (GSM)"},
        {"iPhone5,4", "iPhone 5c (GSM+CDMA)"},
        {"iPhone6,1", "iPhone 5s (GSM)"},
        {"iPhone6,2", "iPhone 5s (GSM+CDMA)"},
        {"iPhone7,1", "iPhone 6 Plus"},
        {"iPhone7,2", "iPhone 6"},
        {"iPod1,1", "iPod Touch 1G"},
        {"iPod2,1", "iPod Touch 2G"},
        {"iPod3,1", "iPod Touch 3G"},
        {"iPod4,1", "iPod Touch 4G"},
        {"iPod5,1", "iPod Touch 5G"},
        {"iPad1,1", "iPad"},
        {"iPad2,1", "iPad 2 (WiFi)"},
        {"iPad2,2", "iPad 2 (GSM)"},
        {"iPad2,3", "iPad 2 (CDMA)"},
        {"iPad2,4", "iPad 2 (WiFi)"},
        {"iPad2,5", "iPad Mini (WiFi)"},
        {"iPad2,6", "iPad Mini (GSM)"},
        {"iPad2,7", "iPad Mini (GSM+CDMA)"},
        {"iPad3,1", "iPad 3 (WiFi)"},
        {"iPad3,2", "iPad 3 (GSM+CDMA)"},
        {"iPad3,3", "iPad 3 (GSM)"},
        {"iPad3,4", "iPad 4 (WiFi)"},
        {"iPad3,5", "iPad 4 (GSM)"},
        {"iPad3,6", "iPad 4 (GSM+CDMA)"},
        {"iPad4,1", "iPad Air (WiFi)"},
        {"iPad4,2", "iPad Air (Cellular)"},
        {"iPad4,4", "iPad mini 2G (WiFi)"},
        {"iPad4,5", "iPad mini 2G (Cellular)"},
        {"i386", "Simulator"},
        {"x86_64", "Simulator"},
        {"iPhone3,2", "Unknow Model iPhone3,2"},
        {"iPad4,3", "Unknow Model iPad4,3"},
        {"iPad4,6", "Unknow Model iPad4,6"},
        {"iphone7,2", "Unknow Model iphone7,2"},
        {"aarch64", "Unknow Model aarch64"},
        {"", "Unknow Model "},
        {"\xC3", "Unknow Model (null)"},
    };
    for (const auto& [identifier, name] : models) {
        systemAnswer = identifier;
        EXPECT_EQ(platfromString(UIDevice::currentDevice()), name);
    }
}

/// The raw identifier as the shared manager of a process shows it; CTest runs each test in one of its own.
void expectUserAgentWith(const char* identifier, const char* end) {
    systemAnswer = identifier;
    auto& requests = ZMBSDKAuthManager::sharedManager()->authClient()->requestSerializer();
    EXPECT_THAT(requests.valueForHTTPHeaderField("User-Agent").value_or(""), ::testing::EndsWith(end));
    EXPECT_EQ(requests.valueForHTTPHeaderField("X-SDK-Version"), "iOS v(null) Core") << "an absent version";
}

TEST(RequestHeaders, CarryTheRawIdentifier) {
    expectUserAgentWith("iPad4,1", ") iPad4,1");
}
TEST(RequestHeaders, ShowAnAbsentIdentifier) {
    expectUserAgentWith("\xFF", ") (null)");
}

}  // namespace
}  // namespace zembra
