#pragma once

#include <atomic>

namespace zembra::test {

/// A program with `HangingResolver.cpp` in it resolves these names without any network: the first is unknown
/// at once, asking for the second takes `kResolverHang` seconds, the third is 127.0.0.1.
inline constexpr char kUnknownHost[] = "unknown.example";
inline constexpr char kHangingHost[] = "hanging.example";
inline constexpr char kLocalHost[] = "local.example";
inline constexpr int kResolverHang = 6;

}  // namespace zembra::test
