#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "PlaceRecords.h"

/// From text to objects with this SDK and with others, in one form each: `map` decodes and maps a text and
/// lets the objects go again, `summaryOf` tells what the objects hold. `text` has `kSpareCapacity`.
namespace bench {

#define BENCH_PEER(name)                             \
    struct name {                                    \
        static std::size_t map(std::string& text);   \
        static Summary summaryOf(std::string& text); \
    };

BENCH_PEER(Zembra)
BENCH_PEER(ZembraArray)
BENCH_PEER(SimdjsonDOM)
BENCH_PEER(SimdjsonOnDemand)
BENCH_PEER(BoostJSON)
BENCH_PEER(RapidJSON)
BENCH_PEER(NlohmannJSON)
#undef BENCH_PEER

/// The plain structs of the peers that are mapped by hand or by a list of members.
struct PlainOwner {
    std::string owner_key;
    std::string full_name;
    std::string mail_address;
    std::int64_t place_count = 0;
};
struct PlainDate {
    std::int64_t microseconds = 0;
};
struct PlainPlace {
    std::string place_key;
    std::string display_name;
    std::string summary_text;
    std::string category_name;
    std::string phone_number;
    std::string web_site;
    double average_rating = 0;
    std::int64_t review_count = 0;
    std::int64_t visit_count = 0;
    PlainDate created_at;
    std::vector<std::string> tag_list;
    PlainOwner owner_info;
};
using PlainPlaces = std::vector<PlainPlace>;

[[nodiscard]] Summary summaryOfPlain(const PlainPlaces& places);

}  // namespace bench
