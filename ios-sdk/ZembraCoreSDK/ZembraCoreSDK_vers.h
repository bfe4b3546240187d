#pragma once

// The version symbols, for tools that look for them in files; any thread.

#include <ZembraPlatform/Export.h>

namespace zembra {

/// The line by which the what tool finds the library's program and project in a file: text, a line feed, a
/// zero byte. Neither symbol is the version of the package; that is what the "X-SDK-Version" header carries.
extern "C" ZEMBRA_EXPORT const unsigned char ZembraCoreSDKVersionString[];

extern "C" ZEMBRA_EXPORT const double ZembraCoreSDKVersionNumber;

}  // namespace zembra
