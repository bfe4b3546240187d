#pragma once

// Whether an error is one of the network, for hosts and modules; any thread.

#include <ZembraPlatform/NSError.h>

namespace zembra {

/// Whether `error` is a failure of the network layer: its domain is `NSURLErrorDomain` or
/// `kCFErrorDomainCFNetwork`, whatever its code. False for `nullptr`. Any thread.
[[nodiscard]] ZEMBRA_EXPORT bool isNetworkError(const NSErrorPtr& error);

}  // namespace zembra
