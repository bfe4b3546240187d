#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "MappingPeers.h"

namespace bench {

namespace {

using zembra::NSArray;
using zembra::NSDate;
using zembra::NSNumber;
using zembra::NSString;
using zembra::Value;

class Owner : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Owner, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSString, ownerKey);
    ZMB_PROPERTY(NSString, fullName);
    ZMB_PROPERTY(NSString, mailAddress);
    ZMB_PROPERTY(NSNumber, placeCount);
};

class Place : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Place, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSString, placeKey);
    ZMB_PROPERTY(NSString, displayName);
    ZMB_PROPERTY(NSString, summaryText);
    ZMB_PROPERTY(NSString, categoryName);
    ZMB_PROPERTY(NSString, phoneNumber);
    ZMB_PROPERTY(NSString, webSite);
    ZMB_PROPERTY(NSNumber, averageRating);
    ZMB_PROPERTY(NSNumber, reviewCount);
    ZMB_PROPERTY(NSNumber, visitCount);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(NSArray, tagList);
    ZMB_PROPERTY(Owner, ownerInfo);

    std::shared_ptr<const zembra::NSDateFormatter> dateFormatter() const {
        return zembra::NSDateFormatter::ISO8601Formatter();
    }
};

using Places = std::vector<std::shared_ptr<Place>>;

Places placesOneByOne(std::string& text) {
    Places places;
    const auto add = [&places](Value record) {
        if (auto place = Place::objectWithJSON(std::move(record))) places.push_back(std::move(place));
    };
    zembra::NSJSONSerialization::enumerateArrayWithData(std::move(text), add);
    return places;
}

Places placesOfArray(std::string& text) {
    Value json = zembra::NSJSONSerialization::JSONObjectWithData(std::move(text));
    return Place::objectsWithArrayOfJSON(std::move(json)).value();
}

Summary summaryOfPlaces(const Places& places) {
    Summary summary;
    const auto add = [&summary](const zembra::Property<NSString>& string) {
        summary.textLength += string.get().value_or("").size();
    };
    for (const std::shared_ptr<Place>& place : places) {
        ++summary.places;
        for (const auto* string : {&place->placeKey, &place->displayName, &place->summaryText,
                                   &place->categoryName, &place->phoneNumber, &place->webSite})
            add(*string);
        summary.ratings += place->averageRating.get().value_or(0);
        summary.numbers += place->reviewCount.get<std::int64_t>().value_or(0) +
                           place->visitCount.get<std::int64_t>().value_or(0);
        if (const auto date = place->createdAt.get()) summary.numbers += date->time_since_epoch().count();
        for (const Value& tag : place->tagList.elements())
            summary.textLength += tag.string().value_or("").size();
        if (!place->ownerInfo) continue;
        for (const auto* string :
             {&place->ownerInfo->ownerKey, &place->ownerInfo->fullName, &place->ownerInfo->mailAddress})
            add(*string);
        summary.numbers += place->ownerInfo->placeCount.get<std::int64_t>().value_or(0);
    }
    return summary;
}

}  // namespace

std::size_t Zembra::map(std::string& text) {
    return placesOneByOne(text).size();
}
Summary Zembra::summaryOf(std::string& text) {
    return summaryOfPlaces(placesOneByOne(text));
}

std::size_t ZembraArray::map(std::string& text) {
    return placesOfArray(text).size();
}
Summary ZembraArray::summaryOf(std::string& text) {
    return summaryOfPlaces(placesOfArray(text));
}

}  // namespace bench
