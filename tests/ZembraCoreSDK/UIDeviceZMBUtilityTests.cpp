// The device's identifier and its names, with the system call and the SDK's version made up.

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include <gmock/gmock.h>

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

// The models whose names do not follow from the one before, the last of each family, and the gaps.
TEST(PlatfromString, NamesTheModels) {
    const std::pair<const char*, const char*> models[] = {
        {"iPhone1,1", "iPhone 1G"},
        {"iPhone1,2", "iPhone 3G"},
        {"iPhone2,1", "iPhone 3GS"},
        {"iPhone3,1", "iPhone 4"},
        {"iPhone3,2", "Unknow Model iPhone3,2"},
        {"iPhone3,3", "Verizon iPhone 4"},
        {"iPhone5,3", "iPhone 5c (GSM)"},
        {"iPhone6,2", "iPhone 5s (GSM+CDMA)"},
        {"iPhone7,1", "iPhone 6 Plus"},
        {"iPhone7,2", "iPhone 6"},
        {"iPod5,1", "iPod Touch 5G"},
        {"iPad1,1", "iPad"},
        {"iPad2,4", "iPad 2 (WiFi)"},
        {"iPad2,5", "iPad Mini (WiFi)"},
        {"iPad3,2", "iPad 3 (GSM+CDMA)"},
        {"iPad3,3", "iPad 3 (GSM)"},
        {"iPad3,6", "iPad 4 (GSM+CDMA)"},
        {"iPad4,3", "Unknow Model iPad4,3"},
        {"iPad4,5", "iPad mini 2G (Cellular)"},
        {"i386", "Simulator"},
        {"x86_64", "Simulator"},
        {"iPhone7,20", "Unknow Model iPhone7,20"},
        {"iphone7,2", "Unknow Model iphone7,2"},
        {"", "Unknow Model "},
        {"\xC3", "Unknow Model (null)"},
    };
    for (const auto& [identifier, name] : models) {
        systemAnswer = identifier;
        EXPECT_EQ(platfromString(UIDevice::currentDevice()), name);
    }
}

TEST(RequestHeaders, ShowWhatIsAbsent) {
    systemAnswer = "\xFF";
    AFHTTPRequestSerializer& requests = ZMBSDKAuthManager::sharedManager()->authClient()->requestSerializer();
    EXPECT_THAT(requests.valueForHTTPHeaderField("User-Agent").value_or(""), ::testing::EndsWith(") (null)"));
    EXPECT_EQ(requests.valueForHTTPHeaderField("X-SDK-Version"), "iOS v(null) Core");
}

}  // namespace
}  // namespace zembra
