#pragma once

#include <functional>

#include <ZembraPlatform/NSError.h>

namespace zembra {

/// The host application's door into the SDK.
class ZEMBRA_EXPORT ZMBApplication {
public:
    /// Receives (true, `nullptr`), or (false, the error). The error is as a rule an SDK error
    /// (`<ZembraCoreSDK/NSError+ZembraCoreSDK.h>`); it can be another, or `nullptr`, where an HTTP client of
    /// the host's own reports failures that `ZMBAuthError` does not know.
    using Completion = std::function<void(bool success, const NSErrorPtr& error)>;

    ZMBApplication() = delete;

    /// Registers the host application with the platform: exchanges its client and bundle identifier for an
    /// app token and an account identifier, which then stand in `ZMBSDKAuthManager::sharedManager()`.
    ///
    /// `completion` runs exactly once. Where the configuration lacks an identifier, it runs before the call
    /// returns, with `sdkAuthWrongInformationError`, and nothing is sent. Otherwise it runs later, on the
    /// HTTP client's completion queue: the main queue, unless the host set another. Calls may be repeated and
    /// may overlap: each is an exchange of its own, and the answer that is handled last decides what is
    /// stored. Passing no completion is a mistake; the exchange still runs.
    ///
    /// Call it on the thread that drains the main queue.
    static void configureApplication(Completion completion);
};

}  // namespace zembra
