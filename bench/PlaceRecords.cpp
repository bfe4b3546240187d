#include "PlaceRecords.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <random>
#include <vector>

namespace bench {

namespace {

class Writer {
public:
    Writer(KeyOrder order, MissingKeys missing) : order_(order), missing_(missing) {}

    std::string records(std::size_t count) {
        text_.reserve(count * 700 + kSpareCapacity);
        text_ += '[';
        for (std::size_t number = 0; number < count; ++number) {
            if (number != 0) text_ += ',';
            appendRecord(number);
        }
        text_ += ']';
        text_.reserve(text_.size() + kSpareCapacity);
        return std::move(text_);
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }

    std::string words(std::size_t count, bool isPlain) {
        static constexpr std::array plain{"garden",  "old", "bakery", "river",
                                          "station", "the", "corner", "bright"};
        static constexpr std::array other{"Größe",          "café",         "東京",
                                          "\\\"quoted\\\"", "line\\nbreak", "\\u00e9t\\u00e9"};
        std::string text;
        for (std::size_t index = 0; index < count; ++index) {
            if (index != 0) text += ' ';
            text += isPlain || index % 3 != 1 ? plain[below(plain.size())] : other[below(other.size())];
        }
        return text;
    }

    std::string quoted(const std::string& text) {
        std::string quotedText(1, '"');
        quotedText.append(text).append(1, '"');
        return quotedText;
    }

    std::string digits(std::size_t count) {
        std::string text(count, '0');
        for (char& digit : text)
            digit = static_cast<char>('1' + below(9));
        return text;
    }

    std::string date() {
        std::array<char, 32> buffer{};
        std::snprintf(buffer.data(), buffer.size(), "\"20%02zu-%02zu-%02zuT%02zu:%02zu:%02zuZ\"",
                      10 + below(15), 1 + below(12), 1 + below(28), below(24), below(60), below(60));
        return buffer.data();
    }

    void appendDictionary(std::vector<std::pair<std::string_view, std::string>> entries) {
        if (order_ == KeyOrder::shuffled) std::shuffle(entries.begin(), entries.end(), random_);
        char separator = '{';
        for (const auto& [key, value] : entries) {
            if (missing_ == MissingKeys::some && below(5) == 0) continue;
            text_ += separator;
            text_.append(1, '"').append(key).append("\":").append(value);
            separator = ',';
        }
        text_ += separator == '{' ? "{}" : "}";
    }

    void appendRecord(std::size_t number) {
        const bool isPlain = number % 2 == 0;
        const std::string name = quoted(words(3, isPlain));
        const std::string summary = quoted(words(20, isPlain));
        std::string tags = "[";
        for (int tag = 0; tag < 4; ++tag)
            tags += (tag == 0 ? "\"" : ",\"") + words(1 + below(2), isPlain) + '"';
        tags += ']';

        Writer owner(order_, missing_);
        owner.random_.seed(random_());
        owner.appendDictionary({{"owner_key", quoted("o-" + digits(8))},
                                {"full_name", quoted(words(2, isPlain))},
                                {"mail_address", quoted(words(1, true) + '.' + digits(4) + "@mail.example")},
                                {"place_count", digits(2)}});
        appendDictionary({{"place_key", quoted("p-" + digits(12))},
                          {"display_name", name},
                          {"summary_text", summary},
                          {"category_name", quoted(words(1, true))},
                          {"phone_number", quoted("+1 " + digits(10))},
                          {"web_site", quoted("https://" + words(1, true) + ".example/" + digits(6))},
                          {"average_rating", std::to_string(1 + below(4)) + '.' + digits(1)},
                          {"review_count", digits(3)},
                          {"visit_count", digits(6)},
                          {"created_at", date()},
                          {"tag_list", tags},
                          {"owner_info", owner.text_}});
    }

    const KeyOrder order_;
    const MissingKeys missing_;
    std::mt19937 random_{20240229};
    std::string text_;
};

}  // namespace

std::string placeRecords(std::size_t count, KeyOrder order, MissingKeys missing) {
    return Writer(order, missing).records(count);
}

std::int64_t microsecondsOfDate(std::string_view text) {
    const auto number = [text](std::size_t start, std::size_t length) {
        int value = 0;
        for (const char digit : text.substr(start, length))
            value = 10 * value + (digit - '0');
        return value;
    };
    if (text.size() != 20) return 0;
    const std::chrono::year_month_day day(std::chrono::year(number(0, 4)),
                                          std::chrono::month(static_cast<unsigned>(number(5, 2))),
                                          std::chrono::day(static_cast<unsigned>(number(8, 2))));
    const std::int64_t seconds = number(11, 2) * 3600 + number(14, 2) * 60 + number(17, 2);
    return (std::chrono::sys_days(day).time_since_epoch().count() * std::int64_t{86'400} + seconds) *
           1'000'000;
}

}  // namespace bench
