// The device's identifier, and the table of readable names; any thread.

#include <array>
#include <string_view>

#include <ZembraCoreSDK/UIDevice+ZMBUtility.h>

#include <ZembraPlatform/NSString.h>
#include <ZembraPlatform/sysctl.h>

namespace zembra {

namespace {

struct Model {
    std::string_view identifier;
    std::string_view name;
};

constexpr std::array<Model, 39> kModels = {{
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
}};

}  // namespace

std::optional<std::string> hardwareString(const std::shared_ptr<UIDevice>& /*device*/) {
    // One question with a buffer that has room for every identifier; its status is not examined.
    std::array<char, 100> buffer{};
    std::size_t length = buffer.size();
    constexpr std::array<int, 2> kName = {CTL_HW, HW_MACHINE};
    sysctl(kName.data(), kName.size(), buffer.data(), &length, nullptr, 0);
    const std::string_view contents(buffer.data(), buffer.size());
    return stringWithUTF8String(contents.substr(0, contents.find('\0')));
}

std::string platfromString(const std::shared_ptr<UIDevice>& device) {
    const std::optional<std::string> identifier = hardwareString(device);
    for (const Model& model : kModels)
        if (identifier == model.identifier) return std::string(model.name);
    return "Unknow Model " + identifier.value_or("(null)");
}

}  // namespace zembra
