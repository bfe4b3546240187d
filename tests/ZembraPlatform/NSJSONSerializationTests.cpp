#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/NSJSONSerialization.h>

namespace zembra {
namespace {

using namespace std::string_literals;

Value decoded(std::string_view text) {
    NSErrorPtr error;
    Value value = NSJSONSerialization::JSONObjectWithData(text, &error);
    EXPECT_EQ(value.isNothing(), error != nullptr) << text.substr(0, 100);
    return value;
}

/// Decodes `text`, which must be refused.
NSErrorPtr refusal(std::string_view text) {
    NSErrorPtr error;
    EXPECT_TRUE(NSJSONSerialization::JSONObjectWithData(text, &error).isNothing());
    EXPECT_TRUE(NSJSONSerialization::JSONObjectWithData(text).isNothing());
    if (!error) return NSError::errorWithDomain("accepted", 0);
    EXPECT_EQ(error->domain(), NSJSONSerializationErrorDomain);
    return error;
}

std::string repeated(std::string_view part, std::size_t count) {
    std::string text;
    for (std::size_t index = 0; index < count; ++index)
        text += part;
    return text;
}

TEST(NSJSONSerializationTests, EveryFormOfValueIsDecoded) {
    const Value empty = Value::array({});
    const struct {
        std::string text;
        Value value;
    } cases[] = {
        {"null", Value::null()},
        {" \t\r\n true ", true},
        {"false", false},
        {"0", 0},
        {"-0", 0},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551616", 0x1p64},
        {"-9223372036854775809", -0x1p63},
        {"[123456789012345678901234567890]", Value::array({123456789012345678901234567890.0})},
        {"1.5e3", 1500.0},
        {"[18446744073709551616.0]", Value::array({0x1p64})},
        {"[-0.12345678901234567890123]", Value::array({-0.12345678901234567890123})},
        {"1E-400", 0.0},
        {"[0.123456789012345678901234567890e-400 ]", Value::array({0.0})},
        {"[1.7976931348623157081452742373e308]", Value::array({std::numeric_limits<double>::max()})},
        {"0." + repeated("0", 1200) + "1", 0.0},
        {"1.7976931348623157e308", std::numeric_limits<double>::max()},
        {"5e-324", std::numeric_limits<double>::denorm_min()},
        {R"("")", ""},
        {R"("fourteen bytes")", "fourteen bytes"},
        {R"("\"\\\/\b\f\n\r\t\u00e9\uD83D\ude00")", "\"\\/\b\f\n\r\t\u00e9\U0001F600"},
        {"\"a\\u0000b\"", "a\0b"s},
        {"\"\u00e9\U0010FFFF\x7F\"", "\u00e9\U0010FFFF\x7F"},
        {R"("a bare string with \"quotes\" and a closing ]")",
         "a bare string with \"quotes\" and a closing ]"},
        {"[]", empty},
        {" [ [ ] , {} , [ [ ] ] ] ", Value::array({empty, Value::dictionary({}), Value::array({empty})})},
        {R"({"a":{"b":[1,{"c":null}]},"":2})",
         Value::dictionary(
             {{"a", Value::dictionary({{"b", Value::array({1, Value::dictionary({{"c", Value::null()}})})}})},
              {"", 2}})},
        {R"({"a":1,"b":2,"a":3})", Value::dictionary({{"a", 3}, {"b", 2}})},
        {R"({"a":1,"\u0061":[4,"a string to be freed"],"a":2})", Value::dictionary({{"a", 2}})},
        {R"({"a\\":1,"a\"":2,"a":3,"zero\u0000":4})",
         Value::dictionary({{"a\\", 1}, {"a\"", 2}, {"a", 3}, {"zero\0"s, 4}})},
    };
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decoded(text), value);
        EXPECT_EQ(decoded(text).type(), value.type());
        std::string spare = text;
        spare.reserve(text.size() + NSJSONSerialization::spareCapacity);
        EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(std::move(spare)), value);
        EXPECT_EQ(decoded(NSJSONSerialization::dataWithJSONObject(value)), value);
    }
}

TEST(NSJSONSerializationTests, WhatIsNoJSONIsRefusedWithItsPlace) {
    const struct {
        std::string text;
        std::size_t offset;
    } cases[] = {
        // nothing, or something behind the value
        {"", 0},
        {"  \n", 3},
        {"1 2", 2},
        {"1,2", 2},
        {"1]", 2},
        {"[1]]", 3},
        {"[] x", 3},
        {"{}{}", 2},
        {"1],[2", 2},
        {"]", 1},
        {"\"a\" \"b\"", 4},
        {"null\0"s, 0},
        {",", 0},
        // structure
        {"[1,]", 3},
        {"[,1]", 1},
        {"[1 2]", 3},
        {"[1", 2},
        {"[", 1},
        {"[[1]", 4},
        {"[[[]", 4},
        {"[}", 1},
        {"[1}", 2},
        {"{", 1},
        {"{]", 1},
        {"{,}", 1},
        {"{1:2}", 1},
        {R"({"a"})", 4},
        {R"({"a":})", 5},
        {R"({"a" 1})", 5},
        {R"({"a":1,})", 7},
        {R"({"a":1 "b":2})", 7},
        {R"({"a":[1})", 7},
        {R"([{"a":1])", 7},
        {R"({"a":1)", 6},
        {R"({"a":{"b":1})", 12},
        {"{'a':1}", 1},
        {"[1,//\n2]", 3},
        // words
        {"nul", 0},
        {"nullx", 0},
        {"falsex", 0},
        {"truee", 0},
        {"[True]", 1},
        {"[NaN]", 1},
        {"[nulll]", 1},
        {"undefined", 0},
        {"-Infinity", 0},
        // numbers
        {"01", 0},
        {"[-]", 1},
        {"[+1]", 1},
        {"[1.]", 1},
        {"[.5]", 1},
        {"[1e]", 1},
        {"[1e+]", 1},
        {"[0x1]", 1},
        {"[1_0]", 1},
        {"1e400", 0},
        {"[1.7976931348623159081452742373e308]", 1},
        {"[-1e400]", 1},
        {"[1" + repeated("0", 400) + "]", 1},
        {"1" + repeated("0", 1081), 0},
        {"[1a]", 1},
        {"[--1]", 1},
        // strings
        {R"("a)", 2},
        {R"(["a\"])", 6},
        {"[\"a\nb\"]", 3},
        {"[\"\\n\x01\"]", 4},
        {R"(["\x"])", 2},
        {R"(["\u12"])", 2},
        {R"(["\ud800"])", 2},
        {R"(["\udc00"])", 2},
        {R"(["\ud800\u0061"])", 2},
        {R"({"\ud800":1})", 2},
        {"\"a\0\""s, 2},
        // encoding
        {"\xEF\xBB\xBF{}", 0},
        {"[\"\xFF\"]", 2},
        {"[\"a\xC0\xAF\"]", 3},
        {"[\"\xED\xA0\x80\"]", 2},
        {"[\"\xE2\x82\"]", 2},
        {"\xFE\xFF\0["s, 0},
        {"[\xC2\xA0]", 1},
    };
    for (const auto& [text, offset] : cases) {
        SCOPED_TRACE(text);
        const NSErrorPtr error = refusal(text);
        EXPECT_EQ(error->code(), NSJSONSerializationErrorMalformed);
        EXPECT_EQ(error->userInfo()[NSJSONSerializationErrorOffsetKey], Value(offset)) << *error;
    }
}

TEST(NSJSONSerializationTests, ErrorsQuoteNothingOfTheText) {
    const NSErrorPtr error = refusal(R"({"access_token":"SECRET",})");
    EXPECT_EQ(error->localizedDescription(),
              "The text is no JSON that can be read: unexpected text at byte 25.");
    for (const auto& text : {R"({"access_token":"SECRET" "x"})", R"({"SECRET\x":1})", R"(["SECRET])"}) {
        std::ostringstream printed;
        printed << *refusal(text) << refusal(text)->userInfo();
        EXPECT_THAT(printed.str(), testing::Not(testing::HasSubstr("SECRET")));
    }
}

TEST(NSJSONSerializationTests, DepthIsLimited) {
    for (const auto& [open, close] : {std::pair{"[", "]"}, std::pair{R"({"a":)", "}"}}) {
        const auto nested = [&, open = open, close = close](std::size_t levels) {
            return repeated(open, levels - 1) + "[]" + repeated(close, levels - 1);
        };
        EXPECT_TRUE(decoded(nested(512)).count() == 1);
        for (const std::size_t levels : {513u, 514u, 1023u, 1024u, 1025u, 1'000'000u}) {
            const NSErrorPtr error = refusal(nested(levels));
            EXPECT_EQ(error->code(), NSJSONSerializationErrorTooDeep);
            EXPECT_EQ(error->userInfo()[NSJSONSerializationErrorOffsetKey],
                      Value(512 * std::string_view(open).size()));
        }
        refusal(repeated(open, 1'000'000));
    }
    const std::string text = NSJSONSerialization::dataWithJSONObject(
        Value::array({decoded(repeated("[", 511) + "[]" + repeated("]", 511))}));
    EXPECT_EQ(text, repeated("[", 512) + "null" + repeated("]", 512));
}

TEST(NSJSONSerializationTests, SizeIsLimited) {
    const std::string_view beyondAnyMemory("", std::size_t{1} << 60);  // its size is looked at, and no more
    EXPECT_EQ(refusal(beyondAnyMemory)->code(), NSJSONSerializationErrorTooLarge);
}

TEST(NSJSONSerializationTests, EveryTruncationIsRefused) {
    const std::string text =
        R"([{"id":1,"display_name":"Caf\u00e9 Ångström","open":true,"score":-1.5e3,"tags":["a",null]},{"id":2}])";
    EXPECT_EQ(decoded(text).count(), 2u);
    for (std::size_t size = 0; size < text.size(); ++size)
        EXPECT_EQ(refusal(text.substr(0, size))->code(), NSJSONSerializationErrorMalformed);
}

TEST(NSJSONSerializationTests, DictionariesOfAnyOrderAndSizeKeepTheirKeys) {
    // Keys in changing order, absent ones, new ones, the same ones on other levels.
    std::string text = "[";
    std::vector<Value> expected;
    std::uint32_t random = 1;
    for (int row = 0; row < 300; ++row) {
        std::vector<Value::Entry> entries;
        for (int column = 0; column < 20; ++column) {
            random = random * 1664525 + 1013904223;
            const std::string key =
                (random >> 24 & 1 ? "k" : "a key beyond fourteen bytes ") + std::to_string(random >> 27);
            const Value inner =
                random >> 23 & 1 ? Value::dictionary({{key, row}, {"k1", column}}) : Value(key);
            entries.push_back({key, inner});
            text += (column == 0 ? "{" : ",") + Value::array({key}).text().substr(1);
            text.back() = ':';
            text += inner.isString() ? Value::array({inner}).text() : inner.text();
            if (inner.isString()) entries.back().value = Value::array({inner});
        }
        text += row < 299 ? "}," : "}]";
        expected.push_back(Value::dictionary(std::move(entries)));
    }
    EXPECT_EQ(decoded(text), Value::array(std::move(expected)));

    // Keys that a comparison of their first bytes could confuse.
    text = "[";
    expected.clear();
    for (const char last : {'a', 'b', 'a', 'c'}) {
        for (std::size_t length = 0; length < 40; ++length) {
            const std::string key = std::string(length, 'k') + last;
            text += (text.size() == 1 ? "{\"" : ",{\"") + key + "\":1,\"" + key + key + "\":2}";
            expected.push_back(Value::dictionary({{key, 1}, {key + key, 2}}));
        }
    }
    EXPECT_EQ(decoded(text + "]"), Value::array(std::move(expected)));

    text = "{";
    for (int number = 0; number < 100'000; ++number)
        text += "\"a key, number " + std::to_string(number % 90'000) + "\":" + std::to_string(number) + ",";
    text.back() = '}';
    const Value large = decoded(text);
    ASSERT_EQ(large.count(), 90'000u);
    for (int number = 0; number < 90'000; ++number)
        ASSERT_EQ(large["a key, number " + std::to_string(number)],
                  Value(number < 10'000 ? number + 90'000 : number));
}

TEST(NSJSONSerializationTests, WritesCompactWellFormedText) {
    const struct {
        Value value;
        std::string text;
    } cases[] = {
        {{}, "null"},
        {std::numeric_limits<double>::quiet_NaN(), "null"},
        {1e22, "1e+22"},
        {0.1, "0.1"},
        {-2.0, "-2.0"},
        {"\b\f\n\r\t\x1f\x7f\"\\/\u00e9", R"("\b\f\n\r\t\u001f\u007f\"\\/)"
                                          "\u00e9\""},
        {"\xFF\xE2\x82", "\"\uFFFD\uFFFD\uFFFD\""},
        {Value::array({1, "a", Value::null()}), R"([1,"a",null])"},
        {Value::dictionary({{"b", true}, {"a\n", Value::dictionary({})}}), R"({"b":true,"a\n":{}})"},
        {Date(std::chrono::sys_days(std::chrono::year(2024) / 2 / 29) +
              std::chrono::microseconds(61'000'001)),
         R"("2024-02-29T00:01:01.000001Z")"},
        {Date(std::chrono::sys_days(std::chrono::year(33) / 4 / 3)), R"("0033-04-03T00:00:00Z")"},
        {Date(std::chrono::microseconds(253'402'300'800'000'000)), R"("+10000-01-01T00:00:00Z")"},
        {Date::min(), R"("-290308-12-21T19:59:05.224192Z")"},
    };
    for (const auto& [value, text] : cases)
        EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(value), text);
}

}  // namespace
}  // namespace zembra
