// The version symbols.

#include <ZembraCoreSDK/ZembraCoreSDK_vers.h>

namespace zembra {

extern "C" {
const unsigned char ZembraCoreSDKVersionString[] = "@(#)PROGRAM:ZembraCoreSDK  PROJECT:Zembra-1\n";
const double ZembraCoreSDKVersionNumber = 1.0;
}

}  // namespace zembra
