#include <nlohmann/json.hpp>

#include "MappingPeers.h"

namespace bench {

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlainOwner, owner_key, full_name, mail_address, place_count)

static void from_json(const nlohmann::json& json, PlainDate& date) {
    date.microseconds = microsecondsOfDate(json.get_ref<const std::string&>());
}
static void to_json(nlohmann::json& json, const PlainDate& date) {
    json = date.microseconds;
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(PlainPlace, place_key, display_name, summary_text, category_name,
                                   phone_number, web_site, average_rating, review_count, visit_count,
                                   created_at, tag_list, owner_info)

static PlainPlaces placesByNlohmann(std::string& text) {
    return nlohmann::json::parse(text).get<PlainPlaces>();
}

std::size_t NlohmannJSON::map(std::string& text) {
    return placesByNlohmann(text).size();
}
Summary NlohmannJSON::summaryOf(std::string& text) {
    return summaryOfPlain(placesByNlohmann(text));
}

}  // namespace bench
