#pragma once

// The device that the process runs on; any thread.

#include <memory>

#include <ZembraPlatform/NSObject.h>

namespace zembra {

/// The device that the process runs on. What can be asked of it stands in
/// `<ZembraCoreSDK/UIDevice+ZMBUtility.h>`.
class ZEMBRA_EXPORT UIDevice : public NSObject {
public:
    /// The one device, the same object at every call, from any thread.
    [[nodiscard]] static const std::shared_ptr<UIDevice>& currentDevice();

    ~UIDevice() override;
};

}  // namespace zembra
