// Hashes keys for tables in memory by SipHash-1-3; any thread may call it.

#include "values/KeyHash.h"

#include <array>
#include <bit>
#include <chrono>
#include <cstddef>
#include <exception>
#include <random>

namespace zembra {

namespace {

using Secret = std::array<std::uint64_t, 2>;

Secret drawSecret() noexcept {
    try {
        std::random_device random;
        const auto word = [&random] { return std::uint64_t{random()} << 32 | random(); };
        return {word(), word()};
    } catch (const std::exception&) {  // a system without randomness: hard to guess, at least
        const auto wall = std::chrono::system_clock::now().time_since_epoch().count();
        const auto uptime = std::chrono::steady_clock::now().time_since_epoch().count();
        return {static_cast<std::uint64_t>(wall), static_cast<std::uint64_t>(uptime)};
    }
}

}  // namespace

std::uint64_t hashOfKey(std::string_view key) noexcept {
    static const Secret secret = drawSecret();
    std::uint64_t v0 = secret[0] ^ 0x736f6d6570736575;
    std::uint64_t v1 = secret[1] ^ 0x646f72616e646f6d;
    std::uint64_t v2 = secret[0] ^ 0x6c7967656e657261;
    std::uint64_t v3 = secret[1] ^ 0x7465646279746573;
    const auto round = [&] {
        v0 += v1, v2 += v3;
        v1 = std::rotl(v1, 13) ^ v0, v3 = std::rotl(v3, 16) ^ v2;
        v0 = std::rotl(v0, 32);
        v2 += v1, v0 += v3;
        v1 = std::rotl(v1, 17) ^ v2, v3 = std::rotl(v3, 21) ^ v0;
        v2 = std::rotl(v2, 32);
    };
    const auto absorb = [&](std::uint64_t word) {
        v3 ^= word;
        round();
        v0 ^= word;
    };

    std::uint64_t lastWord = std::uint64_t{key.size()} << 56;
    std::uint64_t word = 0;
    for (; key.size() >= sizeof(word); key.remove_prefix(sizeof(word))) {
        key.copy(reinterpret_cast<char*>(&word), sizeof(word));
        absorb(word);
    }
    word = 0;
    key.copy(reinterpret_cast<char*>(&word), key.size());
    absorb(lastWord ^ word);
    v2 ^= 0xFF;
    for (int finalRound = 0; finalRound < 3; ++finalRound)
        round();
    return v0 ^ v1 ^ v2 ^ v3;
}

}  // namespace zembra
