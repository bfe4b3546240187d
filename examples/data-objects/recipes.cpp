// Runs the recipes of docs/data-objects.md and prints what comes of them.

#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <ZembraCoreSDK/QVDataObject+Diagnosis.h>
#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSJSONSerialization.h>

using zembra::NSArray;
using zembra::NSDate;
using zembra::NSJSONSerialization;
using zembra::NSNumber;
using zembra::NSString;
using zembra::Value;

/// Reads either of two forms of date.
class EitherFormatter : public zembra::NSDateFormatter {
public:
    std::optional<zembra::Date> dateFromString(std::string_view text) const override {
        static const auto day = formatterWithPattern("%d.%m.%Y");
        const auto date = ISO8601Formatter()->dateFromString(text);
        return date ? date : day->dateFromString(text);
    }
};

class Address : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Address, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSString, firstLine);
    ZMB_PROPERTY(NSString, city);

    /// Keeps "line1", which has no property name.
    static std::shared_ptr<Address> addressWithJSON(const Value& json) {
        auto address = objectWithUntrustedJSON(json);
        if (address) address->firstLine = json["line1"];
        return address;
    }
};

class Article : public zembra::QVDataObject {
    ZMB_DATA_OBJECT(Article, zembra::QVDataObject)

public:
    ZMB_PROPERTY(NSNumber, articleId);
    ZMB_PROPERTY(NSString, summary);
    ZMB_PROPERTY(NSDate, createdAt);
    ZMB_PROPERTY(NSDate, updatedAt);
    ZMB_PROPERTY(NSArray, related);

    /// Keeps "id" and "description", which the mapping never assigns.
    bool initWithJSON(Value json) override {
        const Value id = json["id"], text = json["description"];
        if (!QVDataObject::initWithJSON(std::move(json))) return false;
        articleId = id;
        summary = text;
        return true;
    }

private:
    Value arrayPropertyForKey(std::string_view key, const Value& values) {
        if (key == "related") return arrayWithObjects(Article::objectsWithArrayOfJSON(values));
        return values;
    }
    std::shared_ptr<const zembra::NSDateFormatter> dateFormatter() const {
        static const auto formatter = std::make_shared<EitherFormatter>();
        return formatter;
    }
};

int main() {
    const Value answer = NSJSONSerialization::JSONObjectWithData(R"({
        "id": 7, "description": "Tea", "created_at": "2024-02-29T08:15:00Z", "updated_at": "01.03.2024",
        "related": [{"id": 8, "line1": "x"}, "no article"], "nick_name": "leaf", "line1": "12 Elm Street"})");
    const auto article = Article::objectWithUntrustedJSON(answer);
    const auto other = Article::objectWithUntrustedJSON(answer);
    const std::string text = NSJSONSerialization::dataWithJSONObject(article);
    std::cout << text << '\n';
    std::cout << "equal: " << (text == NSJSONSerialization::dataWithJSONObject(other)) << '\n';
    for (const auto& each : article->related.objects<Article>())
        std::cout << "related: " << each->articleId.get<int>().value_or(0) << '\n';

    const Value properties = propertiesOf(*Address::addressWithJSON(answer));
    for (const auto& [name, value] : properties.entries())
        std::cout << name << ": " << value << '\n';
    for (const std::string& remark : mappingRemarks(Article::staticClass(), answer))
        std::cout << remark << '\n';
}
