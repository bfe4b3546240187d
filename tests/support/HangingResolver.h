#pragma once

#include <array>

namespace zembra::test {

/// Names that a program with `HangingResolver.cpp` in it resolves without any network: the first is unknown
/// at once, asking for the second takes six seconds, the others have several addresses, tried in this order.
inline constexpr char kUnknownHost[] = "unknown.example";
inline constexpr char kHangingHost[] = "hanging.example";
inline constexpr struct {
    const char* name;
    std::array<const char*, 3> addresses;
} kHostsOfSeveralAddresses[] = {
    {"three.example", {"127.0.0.2", "127.0.0.3", "127.0.0.1"}},
    {"mixed.example", {"::1", "127.0.0.2", "127.0.0.1"}},
};

}  // namespace zembra::test
