#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>

namespace zembra {
namespace {

Value JSON(std::string_view text) {
    NSErrorPtr error;
    Value value = NSJSONSerialization::JSONObjectWithData(text, &error);
    if (error != nullptr) ADD_FAILURE() << *error << " in " << text;
    return value;
}

Date day(int year, unsigned month, unsigned dayOfMonth) {
    return std::chrono::sys_days(std::chrono::year(year) / static_cast<int>(month) /
                                 static_cast<int>(dayOfMonth));
}

class Owner;

class Place : public QVDataObject {
    ZMB_DATA_OBJECT(Place, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSString, name);
    ZMB_PROPERTY(NSString, displayName);
    ZMB_PROPERTY(NSString, id);
    ZMB_PROPERTY(NSString, description);
    ZMB_PROPERTY(NSString, Id);
    ZMB_PROPERTY(NSString, _id);
    ZMB_PROPERTY(NSString, under_score);
    ZMB_PROPERTY(NSNumber, rating);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(NSArray, tags);
    ZMB_PROPERTY(NSDictionary, openingHours);
    ZMB_PROPERTY(Owner, ownerInfo);
    ZMB_PROPERTY(int, visits);
    ZMB_PROPERTY(bool, isOpen);
    ZMB_PROPERTY(Value, anything);
};

class Owner : public QVDataObject {
    ZMB_DATA_OBJECT(Owner, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSString, firstName);
    ZMB_PROPERTY(Place, home);  // the two hold each other
    ZMB_PROPERTY(NSArray, places);

private:
    // Hooks may be private.
    Value arrayPropertyForKey(std::string_view key, const Value& values) {
        if (key != "places") return {};
        return arrayWithObjects(Place::objectsWithArrayOfJSON(values));
    }
};

// What is assigned
// --------------------------------------------------------------------------------------------------------

TEST(QVDataObjectTests, OnlyDictionariesMakeObjects) {
    for (const char* json : {"null", "[]", "[{}]", "\"x\"", "1", "true"})
        EXPECT_EQ(Place::objectWithJSON(JSON(json)), nullptr) << json;
    EXPECT_EQ(Place::objectWithJSON({}), nullptr);
    const auto place = Place::objectWithJSON(JSON("{}"));
    ASSERT_NE(place, nullptr);
    EXPECT_TRUE(place->name.value().isNothing());
    EXPECT_EQ(place->visits, 0);
}

TEST(QVDataObjectTests, AssignsAsTheRulesSay) {
    const struct {
        std::string_view json;
        std::string_view property;
        Value value;  // of the property afterwards
    } mappings[] = {
        {R"({"display_name": "a"})", "displayName", "a"},
        {R"({"displayName": "a"})", "displayName", "a"},
        {R"({"display_name": "a", "displayName": "b"})", "displayName", "b"},
        {R"({"displayName": "b", "display-name": "a"})", "displayName", "a"},
        {R"({"name": "a", "Name": "b", "cafés": 1, "unknown_key": 2})", "name", "a"},
        // The skipped names, and what only looks like them.
        {R"({"id": "a"})", "id", {}},
        {R"({"description": "a"})", "description", {}},
        {R"({"__id": "a"})", "_id", {}},
        {R"({"_id": "a"})", "_id", {}},
        {R"({"_id": "a"})", "Id", "a"},
        // Nulls: the dictionary is asked under the camelized name, before and after.
        {R"({"name": null})", "name", {}},
        {R"({"display_name": null})", "displayName", Value::null()},
        {R"({"created_at": null})", "createdAt", Value::null()},
        {R"({"owner_info": null})", "ownerInfo", {}},
        {R"({"display_name": "a", "displayName": null})", "displayName", {}},
        {R"({"displayName": null, "display_name": "a"})", "displayName", {}},
        {R"({"displayName": "a", "display_name": null})", "displayName", Value::null()},
        {R"({"display_name": null, "displayName": "a"})", "displayName", "a"},
        {R"({"d__id": 1, "d_id": null, "under__score": 1, "under_score": null})", "under_score", {}},
        // Values as they come.
        {R"({"name": 5})", "name", 5},
        {R"({"name": {"a": 1}})", "name", JSON(R"({"a": 1})")},
        {R"({"rating": "high"})", "rating", "high"},
        {R"({"opening_hours": {"mon_day": "9-5"}})", "openingHours", JSON(R"({"mon_day": "9-5"})")},
        {R"({"opening_hours": true})", "openingHours", true},
        // Arrays come whole wherever they land, save in a data object.
        {R"({"tags": [{"a_b": null}, 1]})", "tags", JSON(R"([{"a_b": null}, 1])")},
        {R"({"name": [1]})", "name", JSON("[1]")},
        {R"({"created_at": ["2024-01-02"]})", "createdAt", JSON(R"(["2024-01-02"])")},
        {R"({"owner_info": [{"first_name": "x"}]})", "ownerInfo", {}},
        {R"({"owner_info": "x"})", "ownerInfo", {}},
        // Dates without a formatter.
        {R"({"created_at": "2024-01-02"})", "createdAt", {}},
        {R"({"created_at": 1700000000})", "createdAt", 1700000000},
        {R"({"created_at": {"t": 1}})", "createdAt", JSON(R"({"t": 1})")},
        // Any object: never assigned.
        {R"({"anything": 1})", "anything", {}},
    };
    for (const auto& [json, name, value] : mappings) {
        const auto place = Place::objectWithJSON(JSON(json));
        ASSERT_NE(place, nullptr);
        const PropertyDescription* const property = Place::staticClass().property(name);
        ASSERT_NE(property, nullptr) << name;
        EXPECT_EQ(*property->storage(*place), value) << json << " " << name;
    }
}

class Lookalikes : public Place {
    ZMB_DATA_OBJECT(Lookalikes, Place)

public:
    ZMB_PROPERTY(NSString, aNameOfSixteenBy);
    ZMB_PROPERTY(NSString, aNameOfSixteenBytesAndMore);
    ZMB_PROPERTY(NSString, aNameOfSixteenBytesAndLess);
    ZMB_PROPERTY(NSString, name2);
};

TEST(QVDataObjectTests, NamesAreToldApartToTheirLastByteInAnyOrder) {
    const auto object = Lookalikes::objectWithJSON(JSON(
        R"({"a_name_of_sixteen_bytes_and_less": 3, "name": 5, "a_name_of_sixteen_by": 1, "name2x": 6, "nam": 7,
            "a_name_of_sixteen_bytes_and_more": 2, "a_name_of_sixteen_b": 8, "aNameOfSixteenBytesAnd": 9})"));
    EXPECT_EQ(object->aNameOfSixteenBy.value(), Value(1));
    EXPECT_EQ(object->aNameOfSixteenBytesAndMore.value(), Value(2));
    EXPECT_EQ(object->aNameOfSixteenBytesAndLess.value(), Value(3));
    EXPECT_EQ(object->name.value(), Value(5));
    EXPECT_TRUE(object->name2.value().isNothing());
}

TEST(QVDataObjectTests, ScalarsAreNeverAssigned) {
    const auto place = Place::objectWithJSON(JSON(R"({"visits": 5, "is_open": true, "isOpen": true})"));
    place->setPropertyValue(5, "visits", NSNumber::staticClass());
    place->setPropertyValue(5, "noSuchName", NSNumber::staticClass());
    EXPECT_EQ(place->visits, 0);
    EXPECT_FALSE(place->isOpen);
    // Asked for by name, a plain value takes anything.
    place->setPropertyValue(5, "anything", NSNumber::staticClass());
    EXPECT_EQ(place->anything, Value(5));
}

TEST(QVDataObjectTests, DictionariesBecomeNestedObjectsAndConsumeOnlyWhatNobodyElseHolds) {
    const std::string text =
        R"({"owner_info": {"first_name": "a name of some length", "home": {"name": "Elm"},
        "places": [{"name": "a"}, 1, null, [], {"name": "b"}], "x": [1]}})";
    const Value kept = JSON(text);
    for (const auto& place : {Place::objectWithJSON(kept), Place::objectWithJSON(JSON(text))}) {
        ASSERT_TRUE(place->ownerInfo);
        EXPECT_EQ(place->ownerInfo->firstName.get(), "a name of some length");
        EXPECT_EQ(place->ownerInfo->home->name.get(), "Elm");
        std::string names;
        for (const std::shared_ptr<Place>& each : place->ownerInfo->places.objects<Place>())
            names += *each->name.get();
        EXPECT_EQ(names, "ab");
        EXPECT_TRUE(place->ownerInfo->places.objects<Owner>().empty());
    }
    EXPECT_EQ(kept, JSON(text));
}

TEST(QVDataObjectTests, ArraysOfObjects) {
    EXPECT_EQ(Place::objectsWithArrayOfJSON({}), std::nullopt);
    for (const char* none : {"[]", "[1, \"a\", null, [{}]]", "{}", "null", "\"x\""})
        EXPECT_TRUE(Place::objectsWithArrayOfJSON(JSON(none)).value().empty()) << none;

    const char* const text = R"([{"name": "a"}, 1, {"name": "b"}, null, {}])";
    const Value kept = JSON(text);
    for (Value given : {kept, JSON(text)}) {
        const auto places = Place::objectsWithArrayOfJSON(std::move(given)).value();
        ASSERT_EQ(places.size(), 3U);
        EXPECT_EQ(places[0]->name.get(), "a");
        EXPECT_EQ(places[1]->name.get(), "b");
    }
    EXPECT_EQ(kept, JSON(text));
}

// Hooks
// --------------------------------------------------------------------------------------------------------

/// Knows one day.
class LeapDayFormatter : public NSDateFormatter {
public:
    std::optional<Date> dateFromString(std::string_view string) const override {
        return string == "2024-02-29" ? std::optional(day(2024, 2, 29)) : std::nullopt;
    }
};

class Event : public QVDataObject {
    ZMB_DATA_OBJECT(Event, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSDate, startsAt);
    ZMB_PROPERTY(NSDate, endsAt);
    ZMB_PROPERTY(NSArray, guests);
    ZMB_PROPERTY(NSString, title);
    ZMB_PROPERTY(Owner, host);

    mutable int formatterCount = 0;
    bool hasFormatter = true;
    std::vector<std::string> arrayKeys;
    Value replacement;

protected:
    std::shared_ptr<const NSDateFormatter> dateFormatter() const {
        ++formatterCount;
        return hasFormatter ? std::make_shared<LeapDayFormatter>() : nullptr;
    }

private:
    Value arrayPropertyForKey(std::string_view key, const Value&) {
        arrayKeys.emplace_back(key);
        return replacement;
    }
};

/// Hooks of a base class count, private ones included.
class Concert : public Event {
    ZMB_DATA_OBJECT(Concert, Event)

public:
    ZMB_PROPERTY(NSDate, doorsOpenAt);
    ZMB_PROPERTY(NSNumber, title);  // in place of the base class's
};
class Festival : public Concert {
    ZMB_DATA_OBJECT(Festival, Concert)
};

TEST(QVDataObjectTests, AsksForAFormatterForEachStringOfADateProperty) {
    Festival event;
    ASSERT_TRUE(
        event.initWithJSON(JSON(R"({"starts_at": "2024-02-29", "ends_at": "tomorrow", "doors_open_at": 5,
                                            "title": "2024-01-01"})")));
    EXPECT_EQ(event.startsAt.get(), day(2024, 2, 29));
    EXPECT_TRUE(event.endsAt.value().isNothing()) << "does not parse";
    EXPECT_EQ(event.doorsOpenAt.value(), Value(5));
    EXPECT_EQ(event.formatterCount, 2);

    event.hasFormatter = false;
    event.setPropertyValue("2024-02-29", "startsAt", NSDate::staticClass());
    EXPECT_TRUE(event.startsAt.value().isNothing());
    EXPECT_EQ(event.formatterCount, 3);
}

TEST(QVDataObjectTests, AsksTheArrayHookForEveryArrayOutsideDataObjects) {
    const Value empty = Value::array({}), other = Value::array({"x", 2});
    for (const auto& [replacement, assigned] :
         {std::pair(Value(), empty), {"no array", empty}, {other, other}}) {
        Concert event;
        event.replacement = replacement;
        ASSERT_TRUE(event.initWithJSON(
            JSON(R"({"guests": [1], "starts_at": [2], "title": [3], "host": [4], "unknown": [5]})")));
        EXPECT_EQ(event.arrayKeys, (std::vector<std::string>{"guests", "startsAt", "title"}));
        EXPECT_EQ(event.guests.value(), assigned);
        EXPECT_EQ(event.startsAt.value(), assigned);
        EXPECT_EQ(event.title.value(), assigned);
        EXPECT_TRUE(event.host.value().isNothing());
        EXPECT_TRUE(event.Event::title.value().isNothing()) << "the nearest declaration of a name counts";
    }
}

/// Overrides of the three operations change the mapping for their class and those below.
class Renamed : public Place {
    ZMB_DATA_OBJECT(Renamed, Place)

public:
    bool initWithJSON(Value json) override {
        if (json.isString()) json = Value::dictionary({{"name", json}});
        return Place::initWithJSON(std::move(json));
    }
    std::vector<std::string> assigned;

private:
    const Class* dataObjectClassForKey(std::string_view key) const override {
        return Place::dataObjectClassForKey(key == "title" ? "name" : key);
    }
    void setPropertyValue(Value value, std::string_view key, const Class& cls) override {
        assigned.emplace_back(std::string(key) + ":" + std::string(cls.name));
        Place::setPropertyValue(std::move(value), key == "title" ? "name" : key, cls);
    }
};
class RenamedBelow : public Renamed {
    ZMB_DATA_OBJECT(RenamedBelow, Renamed)
};
class Street : public QVDataObject {
    ZMB_DATA_OBJECT(Street, zembra::QVDataObject)

public:
    ZMB_PROPERTY(RenamedBelow, corner);
};

TEST(QVDataObjectTests, OverridesChangeTheMapping) {
    const auto street = Street::objectWithJSON(
        JSON(R"({"corner": {"title": "a", "tags": [], "owner_info": null, "unknown": 1, "visits": 2}})"));
    ASSERT_TRUE(street->corner);
    EXPECT_EQ(street->corner->name.get(), "a");
    EXPECT_EQ(street->corner->assigned,
              (std::vector<std::string>{"title:NSString", "tags:NSArray", "ownerInfo:Owner"}));
    EXPECT_EQ(Street::objectWithJSON(JSON(R"({"corner": "plain text"})"))->corner->name.get(), "plain text");

    // A class without a line of its own has its base's properties and hooks, and still its own overrides.
    struct Plain : Place {
        void setPropertyValue(Value, std::string_view, const Class&) override { ++count; }
        int count = 0;
    } plain;
    EXPECT_TRUE(plain.initWithJSON(JSON(R"({"name": 1, "display_name": 2, "visits": 3})")));
    EXPECT_EQ(plain.count, 2);
}

// Declared properties
// --------------------------------------------------------------------------------------------------------

TEST(ObjectRuntimeTests, DescribesClasses) {
    const Class& festival = Festival::staticClass();
    EXPECT_EQ(festival.superclass(), &Concert::staticClass());
    EXPECT_TRUE(festival.isSubclassOf(Event::staticClass()));
    EXPECT_FALSE(festival.isSubclassOf(Place::staticClass()));
    EXPECT_FALSE(Event::staticClass().isSubclassOf(festival));
    EXPECT_FALSE(NSDate::staticClass().isSubclassOf(NSString::staticClass()));

    Festival event;
    EXPECT_EQ(event.dataObjectClassForKey("doorsOpenAt"), &NSDate::staticClass());
    EXPECT_EQ(event.dataObjectClassForKey("title"), &NSNumber::staticClass());
    EXPECT_EQ(event.dataObjectClassForKey("host"), &Owner::staticClass());
    for (const std::string_view name : {"", "Title", "titl", "title ", "größe"})
        EXPECT_EQ(event.dataObjectClassForKey(name), nullptr) << name;
    EXPECT_EQ(Place().dataObjectClassForKey("anything"), nullptr);
    EXPECT_EQ(Place().dataObjectClassForKey("visits"), nullptr);
}

TEST(ObjectRuntimeTests, TypedReadingAnswersNothingForOtherClasses) {
    for (const Value& value :
         {Value(), Value::null(), Value("text"), Value(2.5), Value(true), JSON("[1]"), JSON("{}"),
          Value(day(2024, 1, 1)), Value(std::make_shared<Owner>()), Value(std::make_shared<Place>())}) {
        Place place;
        for (const PropertyDescription& property : Place::staticClass().properties)
            if (Value* const storage = property.storage(place)) *storage = value;
        EXPECT_EQ(place.name.get().has_value(), value.isString()) << value;
        EXPECT_EQ(place.rating.get().has_value(), value.isNumber() || value.isBoolean()) << value;
        EXPECT_EQ(place.createdAt.get().has_value(), value.isDate()) << value;
        EXPECT_EQ(place.tags.get(), value.isArray() ? value : Value());
        EXPECT_EQ(place.openingHours.get(), value.isDictionary() ? value : Value());
        EXPECT_EQ(static_cast<bool>(place.ownerInfo), value.as<Owner>() != nullptr) << value;
    }
}

TEST(ObjectRuntimeTests, NumbersAreReadAsWhatIsAskedFor) {
    Place place;
    place.rating = 300;
    EXPECT_EQ(place.rating.get(), 300.0);
    EXPECT_EQ(place.rating.get<int>(), 300);
    EXPECT_EQ(place.rating.get<std::uint8_t>(), std::nullopt);
    EXPECT_EQ(place.rating.get<bool>(), std::nullopt);
    place.rating = 2.5;
    EXPECT_EQ(place.rating.get<float>(), 2.5F);
    EXPECT_EQ(place.rating.get<int>(), std::nullopt);
    place.rating = UINT64_MAX;
    EXPECT_EQ(place.rating.get<std::uint64_t>(), UINT64_MAX);
    EXPECT_EQ(place.rating.get<std::int64_t>(), std::nullopt);
    place.rating = true;
    EXPECT_EQ(place.rating.get<bool>(), true);
    EXPECT_EQ(place.rating.get<int>(), 1);
}

int throwOnce = 0;
class Simple : public QVDataObject, public std::enable_shared_from_this<Simple> {
    ZMB_DATA_OBJECT(Simple, zembra::QVDataObject)

public:
    Simple() {
        if (throwOnce-- == 1) throw std::bad_alloc();
    }
    ZMB_PROPERTY(Simple, simple);
    ZMB_PROPERTY(NSString, name);
};
class Abstract : public QVDataObject {
    ZMB_DATA_OBJECT(Abstract, zembra::QVDataObject)

public:
    virtual void act() = 0;
};

TEST(ObjectRuntimeTests, ObjectsAreMadeCopiedAndLetGoAsOwnersExpect) {
    auto simple = Simple::objectWithJSON(JSON(R"({"name": "before", "simple": {"simple": {}}})"));
    EXPECT_EQ(simple->shared_from_this(), simple);
    {
        Simple copy = *simple;
        copy.name = "after";
        EXPECT_EQ(simple->name.get(), "before");
        EXPECT_EQ(copy.simple.get(), simple->simple.get());
    }
    const std::weak_ptr<Simple> outer = simple, inner = simple->simple->simple.get();
    EXPECT_FALSE(inner.expired());
    simple = nullptr;
    EXPECT_TRUE(outer.expired() && inner.expired());

    throwOnce = 1;
    EXPECT_THROW((void)Simple::objectWithJSON(JSON("{}")), std::bad_alloc);
    EXPECT_EQ(QVDataObject::objectWithJSON(Abstract::staticClass(), JSON("{}")), nullptr);
    EXPECT_EQ(QVDataObject::objectWithJSON(NSString::staticClass(), JSON("{}")), nullptr);
}

// Bad input
// --------------------------------------------------------------------------------------------------------

TEST(QVDataObjectTests, MapsHugeDictionariesInLinearTime) {
    std::vector<Value::Entry> entries;
    for (int number = 0; number < 200'000; ++number)
        entries.push_back({"key_" + std::to_string(number) + "_end", Value::null()});
    entries.push_back({"display_name", "found"});
    const auto place = Place::objectWithJSON(Value::dictionary(std::move(entries)));
    EXPECT_EQ(place->displayName.get(), "found");
}

TEST(QVDataObjectTests, MapsTheDeepestDecodedDocument) {
    std::string text = "{}";
    for (std::size_t level = 1; level < NSJSONSerialization::maximumDepth; ++level)
        text = R"({"simple":)" + text + "}";
    auto object = Simple::objectWithJSON(JSON(text));
    std::size_t depth = 0;
    for (; object != nullptr; object = object->simple.get())
        ++depth;
    EXPECT_EQ(depth, NSJSONSerialization::maximumDepth);
}

TEST(QVDataObjectDeathTests, AnEndlessKeyStopsTheInitialization) {
    EXPECT_DEATH((void)Place::objectWithJSON(JSON(R"({"address_line1": 1})")), "");
    EXPECT_NE(Place::objectWithJSON(withoutEndlessKeys(JSON(R"({"address_line1": 1})"))), nullptr);
}

}  // namespace
}  // namespace zembra
