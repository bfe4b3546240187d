#pragma once

namespace zembra::test {

/// Names that a program with `HangingResolver.cpp` in it resolves without any network: the first is unknown
/// at once, asking for the second takes six seconds.
inline constexpr char kUnknownHost[] = "unknown.example";
inline constexpr char kHangingHost[] = "hanging.example";

}  // namespace zembra::test
