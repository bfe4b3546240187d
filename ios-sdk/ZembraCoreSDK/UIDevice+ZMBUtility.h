#pragma once

// The device's identifier and its readable name, for hosts and modules; any thread.

#include <memory>
#include <optional>
#include <string>

#include <ZembraPlatform/UIDevice.h>

namespace zembra {

/// The hardware identifier as the operating system names the device model, such as "iPhone7,2"; on a PC the
/// processor's, such as "x86_64". Absent where the system's answer is not UTF-8. `device` is not consulted:
/// every device gives the system's one identifier. Any thread.
[[nodiscard]] ZEMBRA_EXPORT std::optional<std::string> hardwareString(
    const std::shared_ptr<UIDevice>& device);

/// The readable name of the device model, such as "iPhone 6"; on a PC "Simulator". An identifier without a
/// name gives "Unknow Model " and the identifier, an absent one "Unknow Model (null)". Any thread.
[[nodiscard]] ZEMBRA_EXPORT std::string platfromString(const std::shared_ptr<UIDevice>& device);

}  // namespace zembra
