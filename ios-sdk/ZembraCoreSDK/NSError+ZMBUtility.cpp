// Whether an error is one of the network; any thread.

#include <ZembraCoreSDK/NSError+ZMBUtility.h>

#include <ZembraPlatform/NSURL.h>

namespace zembra {

bool isNetworkError(const NSErrorPtr& error) {
    return error && (error->domain() == NSURLErrorDomain || error->domain() == kCFErrorDomainCFNetwork);
}

}  // namespace zembra
