// Data objects filled from JSON: what the mapping assigns, its hooks, and properties as they are declared and
// read.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include <ZembraCoreSDK/QVDataObject+Diagnosis.h>
#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "model-library/Branch.h"

namespace zembra {
namespace {

using namespace std::literals;
using ::testing::Return;

Value JSON(std::string_view text) {
    Value value = NSJSONSerialization::JSONObjectWithData(text);
    EXPECT_FALSE(value.isNothing()) << text;
    return value;
}

/// What the mapping may have assigned to: the declared properties without the scalar.
Value contents(const QVDataObject& object) {
    const Value properties = propertiesOf(object);
    std::vector<Value::Entry> entries;
    for (const auto& [name, value] : properties.entries())
        if (name != Value("visits")) entries.push_back({name, value});
    return Value::dictionary(std::move(entries));
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
    ZMB_PROPERTY(NSNumber, rating);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(NSArray, tags);
    ZMB_PROPERTY(NSDictionary, openingHours);
    ZMB_PROPERTY(Owner, ownerInfo);
    ZMB_PROPERTY(int, visits);
    ZMB_PROPERTY(Value, anything);
};

class Owner : public QVDataObject, public std::enable_shared_from_this<Owner> {
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

TEST(QVDataObjectTests, AssignsAsTheRulesSay) {
    const std::pair<const char*, const char*> mappings[] = {
        {"{}", "{}"},
        {R"({"display_name": "a", "displayName": "b"})", R"({"displayName": "b"})"},
        {R"({"displayName": "b", "display-name": "a"})", R"({"displayName": "a"})"},
        {R"({"name": "a", "Name": "b", "nam": 1, "name_2x": 2, "cafés": 3, "unknown_key": 4})",
         R"({"name": "a"})"},
        // The skipped names, and what only looks like them.
        {R"({"id": "a", "description": "b", "__id": "c", "_id": "d"})", R"({"Id": "d"})"},
        // Nulls: the dictionary is asked under the camelized name, before and after.
        {R"({"name": null, "display_name": null, "created_at": null, "owner_info": null})",
         R"({"displayName": null, "createdAt": null})"},
        {R"({"display_name": "a", "displayName": null})", "{}"},
        {R"({"displayName": null, "display_name": "a"})", "{}"},
        {R"({"displayName": "a", "display_name": null})", R"({"displayName": null})"},
        {R"({"display_name": null, "displayName": "a"})", R"({"displayName": "a"})"},
        // Values as they come.
        {R"({"name": 5, "rating": "high", "opening_hours": {"mon_day": "9-5"}, "created_at": 1700000000})",
         R"({"name": 5, "rating": "high", "openingHours": {"mon_day": "9-5"}, "createdAt": 1700000000})"},
        {R"({"name": {"a": 1}, "opening_hours": true, "created_at": {"t": 1}, "owner_info": "x"})",
         R"({"name": {"a": 1}, "openingHours": true, "createdAt": {"t": 1}})"},
        // Arrays come whole wherever they land, save in a data object.
        {R"({"tags": [{"a_b": null}, 1], "name": [1], "created_at": ["2024-01-02"], "owner_info": [{}]})",
         R"({"tags": [{"a_b": null}, 1], "name": [1], "createdAt": ["2024-01-02"]})"},
        // Dates without a formatter; scalars and any objects.
        {R"({"created_at": "2024-01-02", "visits": 5, "anything": 1})", "{}"},
    };
    for (const auto& [json, expected] : mappings) {
        const auto place = Place::objectWithJSON(JSON(json));
        ASSERT_NE(place, nullptr);
        EXPECT_EQ(contents(*place), JSON(expected)) << json;
        EXPECT_EQ(place->visits, 0) << json;
    }

    Place place;  // asked for by name, a plain value takes anything
    for (const char* name : {"visits", "noSuchName", "anything"})
        place.setPropertyValue(5, name, NSNumber::staticClass());
    EXPECT_EQ(place.visits, 0);
    EXPECT_EQ(contents(place), JSON(R"({"anything": 5})"));
}

TEST(QVDataObjectTests, DictionariesBecomeObjectsAndConsumeOnlyWhatNobodyElseHolds) {
    const char* const text = R"([1, {"first_name": "a name of some length", "home": {"name": "Elm"}, "x": [1],
        "places": [{"name": "a"}, 1, null, [], {"name": "b"}]}, null, [{}], {}])";
    const Value kept = JSON(text);
    for (const bool isKept : {true, false}) {
        const auto owners = Owner::objectsWithArrayOfJSON(isKept ? kept : JSON(text)).value();
        ASSERT_EQ(owners.size(), 2U);
        Owner& owner = *owners[0];
        EXPECT_EQ(owner.shared_from_this(), owners[0]);
        EXPECT_EQ(owner.firstName.get(), "a name of some length");
        EXPECT_EQ(owner.home->name.get(), "Elm");
        std::string names;
        for (const std::shared_ptr<Place>& each : owner.places.objects<Place>())
            names += *each->name.get();
        EXPECT_EQ(names, "ab");
        EXPECT_TRUE(owner.places.objects<Owner>().empty());
        EXPECT_EQ(contents(*owners[1]), JSON("{}"));
    }
    EXPECT_EQ(kept, JSON(text));
    EXPECT_EQ(Place::objectWithJSON(JSON("[{}]")), nullptr);
    EXPECT_EQ(Place::objectsWithArrayOfJSON({}), std::nullopt);
    EXPECT_TRUE(Place::objectsWithArrayOfJSON("x").value().empty());
}

// Hooks
// --------------------------------------------------------------------------------------------------------

class Event : public Place {
    ZMB_DATA_OBJECT(Event, Place)

    std::shared_ptr<const NSDateFormatter> dateFormatter() const { return formatter(); }
    Value arrayPropertyForKey(std::string_view key, const Value& values) { return replacement(key, values); }

public:
    MOCK_METHOD(std::shared_ptr<const NSDateFormatter>, formatter, (), (const));
    MOCK_METHOD(Value, replacement, (std::string_view key, const Value& values));
};

/// Hooks of a base class count, private ones included.
class Concert : public Event {
    ZMB_DATA_OBJECT(Concert, Event)

public:
    ZMB_PROPERTY(NSDate, doorsOpenAt);
    ZMB_PROPERTY(NSNumber, name);  // in place of the base class's
};

TEST(QVDataObjectTests, AsksForAFormatterForEachStringOfADateProperty) {
    Concert event;
    EXPECT_CALL(event, formatter).Times(2).WillRepeatedly(Return(NSDateFormatter::ISO8601Formatter()));
    ASSERT_TRUE(event.initWithJSON(
        JSON(R"({"created_at": "2024-02-29", "doors_open_at": "tomorrow", "name": "2024-01-01"})")));
    const Date date = std::chrono::sys_days(std::chrono::year(2024) / 2 / 29);
    EXPECT_EQ(contents(event), Value::dictionary({{"createdAt", date}, {"name", "2024-01-01"}}));
    event.setPropertyValue(5, "doorsOpenAt", NSDate::staticClass());
    EXPECT_EQ(event.doorsOpenAt.value(), Value(5));

    EXPECT_CALL(event, formatter).WillOnce(Return(nullptr));
    event.setPropertyValue("2024-02-29", "createdAt", NSDate::staticClass());
    EXPECT_TRUE(event.createdAt.value().isNothing());
}

TEST(QVDataObjectTests, AsksTheArrayHookForEveryArrayOutsideDataObjects) {
    const Value empty = Value::array({}), other = Value::array({"x", 2});
    for (const auto& [given, assigned] : {std::pair(Value(), empty), {"no array", empty}, {other, other}}) {
        Concert event;
        EXPECT_CALL(event, replacement("tags", JSON("[1]"))).WillOnce(Return(given));
        EXPECT_CALL(event, replacement("doorsOpenAt", JSON("[2]"))).WillOnce(Return(given));
        EXPECT_CALL(event, replacement("name", JSON("[3]"))).WillOnce(Return(given));
        ASSERT_TRUE(event.initWithJSON(
            JSON(R"({"tags": [1], "doors_open_at": [2], "name": [3], "owner_info": [4], "unknown": [5]})")));
        EXPECT_EQ(contents(event),
                  Value::dictionary({{"tags", assigned}, {"doorsOpenAt", assigned}, {"name", assigned}}));
        EXPECT_TRUE(event.Place::name.value().isNothing()) << "the nearest declaration of a name counts";
    }
}

class Renamed : public Place {
    ZMB_DATA_OBJECT(Renamed, Place)

    bool initWithJSON(Value json) override {
        return Place::initWithJSON(json.isString() ? Value::dictionary({{"name", json}}) : json);
    }
    const ClassDescription* dataObjectClassForKey(std::string_view key) const override {
        return Place::dataObjectClassForKey(key == "title" ? "name" : key);
    }
    void setPropertyValue(Value value, std::string_view key, const ClassDescription& cls) override {
        Place::setPropertyValue(std::move(value), key == "title" ? "name" : key, cls);
    }
};

TEST(QVDataObjectTests, OverridesChangeTheMapping) {
    const auto renamed = Renamed::objectWithJSON(
        JSON(R"({"title": "a", "tags": [1], "owner_info": null, "unknown": 1, "visits": 2})"));
    EXPECT_EQ(contents(*renamed), JSON(R"({"name": "a", "tags": [1]})"));
    EXPECT_EQ(Renamed::objectWithJSON("plain text")->name.get(), "plain text");
}

/// Overrides count wherever they stand: in a class without a line of its own, in a described one above.
class Between : public Place {
protected:
    void setPropertyValue(Value value, std::string_view key, const ClassDescription& cls) override {
        Place::setPropertyValue(std::move(value), key == "name" ? "displayName" : key, cls);
    }
};
class BelowBetween : public Between {
    ZMB_DATA_OBJECT(BelowBetween, Place)
};
class Lowest : public BelowBetween {
    ZMB_DATA_OBJECT(Lowest, BelowBetween)
    using QVDataObject::setPropertyValue;
};

TEST(QVDataObjectTests, OverridesOfOtherClassesCount) {
    Between between;
    ASSERT_TRUE(between.initWithJSON(JSON(R"({"name": 1})")));
    EXPECT_EQ(contents(between), JSON(R"({"displayName": 1})"));
    EXPECT_EQ(contents(*BelowBetween::objectWithJSON(JSON(R"({"name": 1})"))), JSON(R"({"displayName": 1})"));
    EXPECT_EQ(contents(*Lowest::objectWithJSON(JSON(R"({"name": 1})"))), JSON(R"({"displayName": 1})"));
}

// Declared properties
// --------------------------------------------------------------------------------------------------------

TEST(ObjectRuntimeTests, DescribesClasses) {
    const Concert event;
    EXPECT_TRUE(event.classDescription()->isSubclassOf(Place::staticClass()));
    EXPECT_FALSE(Place::staticClass().isSubclassOf(*event.classDescription()));
    EXPECT_FALSE(Event::staticClass().isSubclassOf(Owner::staticClass()));
    EXPECT_EQ(event.dataObjectClassForKey("name"), &NSNumber::staticClass());
    EXPECT_EQ(event.dataObjectClassForKey("ownerInfo"), &Owner::staticClass());
    for (const std::string_view name : {{}, "name "sv, "größe"sv, "anything"sv, "visits"sv})
        EXPECT_EQ(event.dataObjectClassForKey(name), nullptr) << name;
}

/// Models may be called what the macros might call their parameters.
class Self : public QVDataObject {
    ZMB_DATA_OBJECT(Self, zembra::QVDataObject)

public:
    enum class Size : std::uint8_t { small = 1 };
    ZMB_PROPERTY(NSString, name);
    ZMB_PROPERTY(Size, size);
};
class Object : public Self {
    ZMB_DATA_OBJECT(Object, Self)

public:
    ZMB_PROPERTY(bool, isOpen);
    ZMB_PROPERTY(Value, anything);
    ZMB_PROPERTY(const char*, address);
    ZMB_PROPERTY(double, area);
    ZMB_PROPERTY(NSNumber, name);
};

TEST(ObjectRuntimeTests, PropertiesOfConstObjectsAreReadInOrder) {
    const auto object = Object::objectWithJSON(JSON(R"({"name": 3})"));
    object->size = Self::Size::small;
    object->anything = Value::array({1});
    object->Self::name = "base";
    const NSObject& constant = *object;
    EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(propertiesOf(constant)),
              R"({"name":3,"size":1,"isOpen":false,"anything":[1],"area":0.0})");
    EXPECT_EQ(Self::staticClass().properties[0].value(constant), Value("base"));
    EXPECT_TRUE(propertiesOf(NSError("domain", 1, {})).isNothing());
}

TEST(ObjectRuntimeTests, TypedReadingAnswersNothingForOtherClasses) {
    for (const Value& value :
         {Value(), Value::null(), Value("text"), Value(2.5), Value(true), JSON("[1]"), JSON("{}"),
          Value(Date()), Value(std::make_shared<Owner>()), Value(std::make_shared<Place>())}) {
        Place place;
        for (const PropertyDescription& property : Place::staticClass().properties)
            if (property.storage != nullptr) *property.storage(place) = value;
        EXPECT_EQ(place.name.get().has_value(), value.isString()) << value;
        EXPECT_EQ(place.rating.get().has_value(), value.isNumber() || value.isBoolean()) << value;
        EXPECT_EQ(place.createdAt.get().has_value(), value.isDate()) << value;
        EXPECT_EQ(place.tags.get(), value.isArray() ? value : Value());
        EXPECT_EQ(place.openingHours.get(), value.isDictionary() ? value : Value());
        EXPECT_EQ(static_cast<bool>(place.ownerInfo), value.as<Owner>() != nullptr) << value;
    }
}

TEST(ObjectRuntimeTests, NumbersAreReadAsWhatIsAskedFor) {
    const auto readings = [](const Value& value) {
        Place place;
        place.rating = value;
        const auto& number = place.rating;
        return std::tuple(number.get(), number.get<char>(), number.get<std::int64_t>(),
                          number.get<std::uint64_t>(), number.get<bool>());
    };
    constexpr auto none = std::nullopt;
    EXPECT_EQ(readings(300), std::tuple(300.0, none, 300, 300U, none));
    EXPECT_EQ(readings(2.5), std::tuple(2.5, none, none, none, none));
    EXPECT_EQ(readings(UINT64_MAX), std::tuple(0x1p64, none, none, UINT64_MAX, none));
    EXPECT_EQ(readings(true), std::tuple(1.0, '\1', 1, 1U, true));
}

class Abstract : public QVDataObject {
    ZMB_DATA_OBJECT(Abstract, zembra::QVDataObject)
    virtual void act() = 0;
};

TEST(ObjectRuntimeTests, OnlyModelsThatCanBeMadeAreMade) {
    EXPECT_EQ(QVDataObject::objectWithJSON(Abstract::staticClass(), JSON("{}")), nullptr);
    EXPECT_EQ(QVDataObject::objectWithJSON(NSString::staticClass(), JSON("{}")), nullptr);
}

class Headquarters : public Branch {
    ZMB_DATA_OBJECT(Headquarters, Branch)
};

TEST(ModelLibraryTests, AClassIsTheSameInEachLibrary) {
    const auto made = branchMadeInLibrary(
        Value::dictionary({{"street_name", "Elm"}, {"next_branch", Value::dictionary({})}}));
    const ClassDescription& inLibrary = *made->classDescription();
    ASSERT_NE(&inLibrary, &Branch::staticClass()) << "else this proves nothing";
    EXPECT_TRUE(inLibrary.isSubclassOf(Branch::staticClass()));
    EXPECT_TRUE(Headquarters::staticClass().isSubclassOf(inLibrary));

    Headquarters headquarters;
    headquarters.nextBranch = made;
    ASSERT_TRUE(headquarters.nextBranch);
    EXPECT_EQ(headquarters.nextBranch->streetName.get(), "Elm");
    EXPECT_TRUE(headquarters.nextBranch->nextBranch);
}

// What the mapping leaves out
// --------------------------------------------------------------------------------------------------------

TEST(QVDataObjectTests, UntrustedJSONIsScreened) {
    const Value json =
        JSON(R"({"name": "Elm", "line1": 1, "owner_info": {"first_name": "Ada", "name_": 2}})");
    EXPECT_EQ(Place::objectWithUntrustedJSON(json)->ownerInfo->firstName.get(), "Ada");
    EXPECT_EQ(Place::objectsWithArrayOfUntrustedJSON(Value::array({json, 1}))->size(), 1U);
    EXPECT_EQ(Place::objectsWithArrayOfUntrustedJSON({}), std::nullopt);
}

TEST(QVDataObjectTests, RemarksTellWhatFindsNoPlace) {
    const Value json = JSON(R"({"first_name": "Ada", "id": 1, "nick_name": "a", "line1": 2,
        "home": {"name": null, "visits": 3, "display_name": "Elm", "rating": 4, "tags": [], "_id": "x",
                 "opening_hours": {}, "anything": 5, "owner_info": {"first_name": "", "home": 1, "places": []}}})");
    using ::testing::HasSubstr;
    EXPECT_THAT(
        mappingRemarks(Owner::staticClass(), json),
        ::testing::ElementsAre(HasSubstr("\"id\": id is never assigned"),
                               HasSubstr("\"nick_name\": there is no property nickName"),
                               HasSubstr("\"line1\": its conversion never ends"), "places holds nothing",
                               HasSubstr("home.\"name\": the dictionary holds null under name"),
                               HasSubstr("home.\"visits\": visits is a scalar"),
                               HasSubstr("home.\"anything\": anything is"), "home.name holds nothing",
                               "home.createdAt holds nothing", "home.ownerInfo.home holds nothing"));
    EXPECT_EQ(mappingRemarks(NSString::staticClass(), JSON("{}")).size(), 1U);
    EXPECT_EQ(mappingRemarks(Place::staticClass(), JSON("[]")).size(), 1U);
}

TEST(QVDataObjectTests, AreWrittenAsJSONUnderTheirPropertyNames) {
    struct Local : NSObject {};
    const auto place = Place::objectWithJSON(JSON(R"({"rating": 4.5, "display_name": "Mill"})"));
    const auto owner = std::make_shared<Owner>();
    owner->home = place;
    EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(Value::array({Value(owner)})),
              R"([{"home":{"displayName":"Mill","rating":4.5,"visits":0}}])");
    place->name = Value(std::make_shared<Local>());
    NSErrorPtr error;
    EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(owner, &error), "");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSJSONSerializationErrorForeignObject);
    EXPECT_NE(error->userInfo().text().find("an object of class Local,"), std::string::npos) << *error;
    EXPECT_EQ(Value(owner).text(), "Owner");
}

}  // namespace
}  // namespace zembra
