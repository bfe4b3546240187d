#pragma once

// The host application's door into the SDK: the one call at start-up, on the thread that drains the main
// queue.

#include <functional>

#include <ZembraPlatform/NSError.h>

namespace zembra {

/// Registers the host application; it has no state.
class ZEMBRA_EXPORT ZMBApplication : public NSObject {
public:
    /// Receives (true, `nullptr`), or (false, the error). The error is as a rule one of the SDK's four
    /// (`<ZembraCoreSDK/NSError+ZembraCoreSDK.h>`). It is another where the request never left (a header or a
    /// URL that is refused) or the answer is no JSON: then it is the HTTP client's underlying error, such as
    /// the decoder's. It is `nullptr` only where an HTTP client of the host's own fails without saying why.
    using Completion = std::function<void(bool success, const NSErrorPtr& error)>;

    ~ZMBApplication() override;

    /// Registers the host application with the platform: exchanges its client and bundle identifier for an
    /// app token and an account identifier, which then stand in `ZMBSDKAuthManager::sharedManager()`.
    ///
    /// `completion` runs exactly once. Where the configuration lacks an identifier, it runs before the call
    /// returns, with `sdkAuthWrongInformationError`, and nothing is sent. Otherwise it runs later, on the
    /// HTTP client's completion queue: the main queue, unless the host set another. Calls may be repeated and
    /// may overlap: each is an exchange of its own, and the answer that is handled last decides what is
    /// stored. Passing no completion is a mistake; the exchange still runs. What a completion throws comes
    /// out of this call or out of the queue's `drain`, whichever runs it.
    ///
    /// Call it on the thread that drains the main queue.
    static void configureApplication(Completion completion);
};

}  // namespace zembra
