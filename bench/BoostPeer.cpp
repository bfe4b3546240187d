#include <boost/describe.hpp>
#include <boost/json.hpp>

#include "MappingPeers.h"

namespace bench {

BOOST_DESCRIBE_STRUCT(PlainOwner, (), (owner_key, full_name, mail_address, place_count))
BOOST_DESCRIBE_STRUCT(PlainPlace, (),
                      (place_key, display_name, summary_text, category_name, phone_number, web_site,
                       average_rating, review_count, visit_count, created_at, tag_list, owner_info))

static PlainDate tag_invoke(boost::json::value_to_tag<PlainDate>, const boost::json::value& value) {
    return {microsecondsOfDate(value.as_string())};
}

static PlainPlaces placesByBoost(std::string& text) {
    boost::json::monotonic_resource memory;
    return boost::json::value_to<PlainPlaces>(boost::json::parse(text, &memory));
}

std::size_t BoostJSON::map(std::string& text) {
    return placesByBoost(text).size();
}
Summary BoostJSON::summaryOf(std::string& text) {
    return summaryOfPlain(placesByBoost(text));
}

}  // namespace bench
