#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The text that all mapping benchmarks work on: an array of records of places as a server would send them.
namespace bench {

enum class KeyOrder { fixed, shuffled };
enum class MissingKeys { none, some };

/// `count` records of about 600 bytes, the same at every call: 12 keys, one of them an owner with four, one
/// an array of four strings, one a date. Half of the records hold escapes or text beyond ASCII. With
/// `MissingKeys::some` each key is left out of a fifth of the records. The string has room to spare behind
/// its text, as parsers ask for.
[[nodiscard]] std::string placeRecords(std::size_t count, KeyOrder order = KeyOrder::fixed,
                                       MissingKeys missing = MissingKeys::none);

/// What `placeRecords` keeps free behind the text.
inline constexpr std::size_t kSpareCapacity = 256;

/// Microseconds since 1970 of `2024-02-29T23:59:07Z`, the one form of the records, read by hand.
[[nodiscard]] std::int64_t microsecondsOfDate(std::string_view text);

/// What all peers must agree on after mapping the same text.
struct Summary {
    std::size_t places = 0;
    std::size_t textLength = 0;  // of all strings
    std::int64_t numbers = 0;    // the sum of all whole numbers and dates
    double ratings = 0;

    bool operator==(const Summary&) const = default;
};

}  // namespace bench
