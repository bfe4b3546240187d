// The one `sysctl` name that the SDK asks for, answered from uname; any thread.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/utsname.h>

#include <ZembraPlatform/sysctl.h>

namespace zembra {

namespace {

int fail(int error) noexcept {
    errno = error;
    return -1;
}

}  // namespace

int sysctl(const int* name, unsigned nameLength, void* oldValue, std::size_t* oldLength, const void* newValue,
           std::size_t newLength) noexcept {
    if (name == nullptr || nameLength != 2 || name[0] != CTL_HW || name[1] != HW_MACHINE) return fail(ENOENT);
    if (newValue != nullptr || newLength != 0) return fail(EPERM);
    if (oldLength == nullptr) return oldValue == nullptr ? 0 : fail(EFAULT);

    utsname system;
    if (uname(&system) != 0) return -1;
    const std::size_t length = std::strlen(system.machine) + 1;
    const std::size_t room = oldValue == nullptr ? length : *oldLength;
    if (oldValue != nullptr) std::memcpy(oldValue, system.machine, std::min(length, room));
    *oldLength = std::min(length, room);
    return room < length ? fail(ENOMEM) : 0;
}

}  // namespace zembra
