#pragma once

// The system call that tells the machine's identifier, for systems without it; any thread.

#include <cstddef>

#include <ZembraPlatform/Export.h>

namespace zembra {

/// The two levels of the one name that `sysctl` answers.
inline constexpr int CTL_HW = 6;
inline constexpr int HW_MACHINE = 1;

/// The system call of that name, for systems without it. Writes the value of the name {`CTL_HW`,
/// `HW_MACHINE`}, the machine's identifier and a zero byte, to `oldValue` if its `*oldLength` bytes have room
/// for it, and sets `*oldLength` to the length including the zero byte. Without an `oldValue` it only tells
/// that length.
///
/// Returns 0, or -1 with `errno`: ENOMEM where there is no room (as many bytes as fit are written), ENOENT
/// for another name, EPERM for an attempt to set a value. May be called from any thread.
ZEMBRA_EXPORT int sysctl(const int* name, unsigned nameLength, void* oldValue, std::size_t* oldLength,
                         const void* newValue, std::size_t newLength) noexcept;

}  // namespace zembra
