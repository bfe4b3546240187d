#include "MappingPeers.h"

namespace bench {

Summary summaryOfPlain(const PlainPlaces& places) {
    Summary summary;
    for (const PlainPlace& place : places) {
        ++summary.places;
        for (const std::string* string :
             {&place.place_key, &place.display_name, &place.summary_text, &place.category_name,
              &place.phone_number, &place.web_site, &place.owner_info.owner_key, &place.owner_info.full_name,
              &place.owner_info.mail_address})
            summary.textLength += string->size();
        for (const std::string& tag : place.tag_list)
            summary.textLength += tag.size();
        summary.ratings += place.average_rating;
        summary.numbers += place.review_count + place.visit_count + place.created_at.microseconds +
                           place.owner_info.place_count;
    }
    return summary;
}

}  // namespace bench
