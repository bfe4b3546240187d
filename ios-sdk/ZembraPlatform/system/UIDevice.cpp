// The one device object; any thread.

#include <ZembraPlatform/UIDevice.h>

namespace zembra {

UIDevice::~UIDevice() = default;

const std::shared_ptr<UIDevice>& UIDevice::currentDevice() {
    // Never destroyed, so that it can be asked for at any time until the process has ended.
    static const auto* const device = new std::shared_ptr<UIDevice>(std::make_shared<UIDevice>());
    return *device;
}

}  // namespace zembra
