#pragma once

#include <cstdint>
#include <string_view>

namespace zembra {

/// A hash of `key` for tables in memory: SipHash-1-3 under a secret that is drawn once per process, so that
/// nobody who chooses keys can choose collisions. Any thread.
[[nodiscard]] std::uint64_t hashOfKey(std::string_view key) noexcept;

}  // namespace zembra
