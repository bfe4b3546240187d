#include <simdjson.h>

#include "MappingPeers.h"

namespace bench {

namespace {

simdjson::padded_string_view padded(const std::string& text) {
    return simdjson::padded_string_view(text.data(), text.size(), text.capacity());
}

// By hand, as a careful programmer writes it: keys in any order, missing ones left alone.

namespace dom = simdjson::dom;

void read(dom::object object, const char* key, std::string& string) {
    std::string_view view;
    if (object[key].get(view) == simdjson::SUCCESS) string = view;
}

template <class Number>
requires std::is_arithmetic_v<Number>
void read(dom::object object, const char* key, Number& number) {
    if (object[key].get(number) != simdjson::SUCCESS) number = 0;
}

PlainPlace placeOf(dom::object object) {
    PlainPlace place;
    read(object, "place_key", place.place_key);
    read(object, "display_name", place.display_name);
    read(object, "summary_text", place.summary_text);
    read(object, "category_name", place.category_name);
    read(object, "phone_number", place.phone_number);
    read(object, "web_site", place.web_site);
    read(object, "average_rating", place.average_rating);
    read(object, "review_count", place.review_count);
    read(object, "visit_count", place.visit_count);
    std::string_view date;
    if (object["created_at"].get(date) == simdjson::SUCCESS)
        place.created_at.microseconds = microsecondsOfDate(date);
    dom::array tags;
    if (object["tag_list"].get(tags) == simdjson::SUCCESS) {
        place.tag_list.reserve(tags.size());
        for (const dom::element tag : tags)
            place.tag_list.emplace_back(std::string_view(tag));
    }
    dom::object owner;
    if (object["owner_info"].get(owner) == simdjson::SUCCESS) {
        read(owner, "owner_key", place.owner_info.owner_key);
        read(owner, "full_name", place.owner_info.full_name);
        read(owner, "mail_address", place.owner_info.mail_address);
        read(owner, "place_count", place.owner_info.place_count);
    }
    return place;
}

PlainPlaces placesByDOM(std::string& text) {
    dom::parser parser;
    const dom::array array = parser.parse(padded(text));
    PlainPlaces places;
    places.reserve(array.size());
    for (const dom::object object : array)
        places.push_back(placeOf(object));
    return places;
}

namespace ondemand = simdjson::ondemand;

void read(ondemand::object& object, const char* key, std::string& string) {
    std::string_view view;
    if (object[key].get(view) == simdjson::SUCCESS) string = view;
}

template <class Number>
requires std::is_arithmetic_v<Number>
void read(ondemand::object& object, const char* key, Number& number) {
    if (object[key].get(number) != simdjson::SUCCESS) number = 0;
}

void readPlace(ondemand::object object, PlainPlace& place) {
    read(object, "place_key", place.place_key);
    read(object, "display_name", place.display_name);
    read(object, "summary_text", place.summary_text);
    read(object, "category_name", place.category_name);
    read(object, "phone_number", place.phone_number);
    read(object, "web_site", place.web_site);
    read(object, "average_rating", place.average_rating);
    read(object, "review_count", place.review_count);
    read(object, "visit_count", place.visit_count);
    std::string_view date;
    if (object["created_at"].get(date) == simdjson::SUCCESS)
        place.created_at.microseconds = microsecondsOfDate(date);
    ondemand::array tags;
    if (object["tag_list"].get(tags) == simdjson::SUCCESS) {
        place.tag_list.reserve(4);
        for (auto tag : tags)
            place.tag_list.emplace_back(std::string_view(tag));
    }
    ondemand::object owner;
    if (object["owner_info"].get(owner) == simdjson::SUCCESS) {
        read(owner, "owner_key", place.owner_info.owner_key);
        read(owner, "full_name", place.owner_info.full_name);
        read(owner, "mail_address", place.owner_info.mail_address);
        read(owner, "place_count", place.owner_info.place_count);
    }
}

PlainPlaces placesOnDemand(std::string& text) {
    ondemand::parser parser;
    ondemand::document document = parser.iterate(padded(text));
    PlainPlaces places;
    for (auto element : document.get_array())
        readPlace(element.get_object(), places.emplace_back());
    return places;
}

}  // namespace

std::size_t SimdjsonDOM::map(std::string& text) {
    return placesByDOM(text).size();
}
Summary SimdjsonDOM::summaryOf(std::string& text) {
    return summaryOfPlain(placesByDOM(text));
}

std::size_t SimdjsonOnDemand::map(std::string& text) {
    return placesOnDemand(text).size();
}
Summary SimdjsonOnDemand::summaryOf(std::string& text) {
    return summaryOfPlain(placesOnDemand(text));
}

}  // namespace bench
