#include <rapidjson/document.h>

#include "MappingPeers.h"

namespace bench {

namespace {

void read(const rapidjson::Value& object, const char* key, std::string& string) {
    const auto member = object.FindMember(key);
    if (member != object.MemberEnd() && member->value.IsString())
        string.assign(member->value.GetString(), member->value.GetStringLength());
}

void read(const rapidjson::Value& object, const char* key, std::int64_t& number) {
    const auto member = object.FindMember(key);
    if (member != object.MemberEnd() && member->value.IsInt64()) number = member->value.GetInt64();
}

PlainPlace placeOf(const rapidjson::Value& object) {
    PlainPlace place;
    read(object, "place_key", place.place_key);
    read(object, "display_name", place.display_name);
    read(object, "summary_text", place.summary_text);
    read(object, "category_name", place.category_name);
    read(object, "phone_number", place.phone_number);
    read(object, "web_site", place.web_site);
    const auto rating = object.FindMember("average_rating");
    if (rating != object.MemberEnd() && rating->value.IsNumber())
        place.average_rating = rating->value.GetDouble();
    read(object, "review_count", place.review_count);
    read(object, "visit_count", place.visit_count);
    const auto date = object.FindMember("created_at");
    if (date != object.MemberEnd() && date->value.IsString())
        place.created_at.microseconds =
            microsecondsOfDate({date->value.GetString(), date->value.GetStringLength()});
    const auto tags = object.FindMember("tag_list");
    if (tags != object.MemberEnd() && tags->value.IsArray()) {
        place.tag_list.reserve(tags->value.Size());
        for (const rapidjson::Value& tag : tags->value.GetArray())
            place.tag_list.emplace_back(tag.GetString(), tag.GetStringLength());
    }
    const auto owner = object.FindMember("owner_info");
    if (owner != object.MemberEnd() && owner->value.IsObject()) {
        read(owner->value, "owner_key", place.owner_info.owner_key);
        read(owner->value, "full_name", place.owner_info.full_name);
        read(owner->value, "mail_address", place.owner_info.mail_address);
        read(owner->value, "place_count", place.owner_info.place_count);
    }
    return place;
}

PlainPlaces placesByRapid(std::string& text) {
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    PlainPlaces places;
    places.reserve(document.Size());
    for (const rapidjson::Value& object : document.GetArray())
        places.push_back(placeOf(object));
    return places;
}

}  // namespace

std::size_t RapidJSON::map(std::string& text) {
    return placesByRapid(text).size();
}
Summary RapidJSON::summaryOf(std::string& text) {
    return summaryOfPlain(placesByRapid(text));
}

}  // namespace bench
