// Maps a list of places, as a server answers it, to model objects and prints them.
//
//     zembra-example-data-objects places.json

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>

using zembra::NSArray;
using zembra::NSDate;
using zembra::NSDictionary;
using zembra::NSNumber;
using zembra::NSString;

/// What the models of this example have in common: how their server writes dates.
class Model : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Model, zembra::QVDataObject)

    std::shared_ptr<const zembra::NSDateFormatter> dateFormatter() const {
        return zembra::NSDateFormatter::ISO8601Formatter();
    }
};

class Owner : public Model {
    ZMB_DATA_OBJECT(Owner, Model)

public:
    ZMB_PROPERTY(NSString, fullName);
    ZMB_PROPERTY(NSDate, memberSince);
    ZMB_PROPERTY(NSDictionary, contact);  // stays as the server sent it
};

class OpeningHours : public Model {
    ZMB_DATA_OBJECT(OpeningHours, Model)

public:
    ZMB_PROPERTY(NSString, dayName);
    ZMB_PROPERTY(NSString, opensAt);
    ZMB_PROPERTY(NSString, closesAt);
};

class Place : public Model {
    ZMB_DATA_OBJECT(Place, Model)

public:
    ZMB_PROPERTY(NSString, Id);  // "_id"; "id" and "description" are never assigned
    ZMB_PROPERTY(NSString, displayName);
    ZMB_PROPERTY(NSNumber, averageRating);
    ZMB_PROPERTY(NSNumber, reviewCount);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(NSDate, updatedAt);
    ZMB_PROPERTY(NSArray, tags);
    ZMB_PROPERTY(NSArray, openingHours);
    ZMB_PROPERTY(Owner, ownerInfo);
    ZMB_PROPERTY(NSString, photo2);
    ZMB_PROPERTY(bool, isFavourite);  // the host's own: a scalar is never assigned

private:
    zembra::Value arrayPropertyForKey(std::string_view key, const zembra::Value& values) {
        if (key == "openingHours") return arrayWithObjects(OpeningHours::objectsWithArrayOfJSON(values));
        return values;
    }
};

namespace {

/// A property's text: that of a string, else a remark on what came in its place.
std::string textOf(const zembra::Property<NSString>& property) {
    if (const auto text = property.get()) return std::string(*text);
    return property.value().isNothing() ? "-" : "(no string: " + property.value().text() + ")";
}

std::string textOf(const zembra::Property<NSDate>& property) {
    if (const auto date = property.get()) {
        const std::chrono::year_month_day day(std::chrono::floor<std::chrono::days>(*date));
        const auto twoDigits = [](unsigned number) {
            return (number < 10 ? "-0" : "-") + std::to_string(number);
        };
        return std::to_string(static_cast<int>(day.year())) + twoDigits(static_cast<unsigned>(day.month())) +
               twoDigits(static_cast<unsigned>(day.day()));
    }
    return property.value().isNothing() ? "-" : "(no date: " + property.value().text() + ")";
}

void print(const Place& place) {
    std::cout << textOf(place.Id) << "  " << textOf(place.displayName) << '\n';
    if (const auto rating = place.averageRating.get())
        std::cout << "    rated " << *rating << " by " << place.reviewCount.get<int>().value_or(0) << '\n';
    std::cout << "    created " << textOf(place.createdAt) << ", updated " << textOf(place.updatedAt) << '\n';
    if (place.ownerInfo) {
        std::cout << "    owner " << textOf(place.ownerInfo->fullName) << ", member since "
                  << textOf(place.ownerInfo->memberSince) << ", contact " << place.ownerInfo->contact.value()
                  << '\n';
    }
    for (const zembra::Value& tag : place.tags.elements())
        std::cout << "    #" << tag.text() << '\n';
    for (const std::shared_ptr<OpeningHours>& hours : place.openingHours.objects<OpeningHours>())
        std::cout << "    " << textOf(hours->dayName) << ' ' << textOf(hours->opensAt) << " to "
                  << textOf(hours->closesAt) << '\n';
}

}  // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) {
        std::cerr << "usage: " << arguments[0] << " <file of JSON>\n";
        return 2;
    }
    std::ifstream file(arguments[1], std::ios::binary);
    if (!file) {
        std::cerr << arguments[1] << ": cannot be read\n";
        return 1;
    }
    std::string text{std::istreambuf_iterator(file), {}};

    zembra::NSErrorPtr error;
    const zembra::Value answer = zembra::NSJSONSerialization::JSONObjectWithData(std::move(text), &error);
    if (answer.isNothing()) {
        std::cerr << arguments[1] << ": " << *error << '\n';
        return 1;
    }

    // Keys such as "address_line1" would never finish converting; of what a server sends they are left out.
    const auto places = Place::objectsWithArrayOfUntrustedJSON(answer["places"]);
    if (!places) {
        std::cerr << arguments[1] << ": the answer has no places\n";
        return 1;
    }
    for (const std::shared_ptr<Place>& place : *places)
        print(*place);
}
