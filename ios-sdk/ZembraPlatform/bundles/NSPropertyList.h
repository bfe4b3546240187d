#pragma once

// Property lists, as `NSBundle` reads them; any thread.

#include <string>
#include <string_view>

#include <ZembraPlatform/Value.h>

namespace zembra {

/// The dictionary that `contents`, an XML property list in UTF-8, stands for, or nothing; then `reason` says
/// why. Data comes as the string of its bytes. The parser's stack grows with the nesting: give it no more
/// than 256 KiB.
Value dictionaryWithPropertyList(std::string_view contents, std::string& reason);

}  // namespace zembra
