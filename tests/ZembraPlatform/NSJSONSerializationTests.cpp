#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/NSJSONSerialization.h>

#include "support/ErrorMatchers.h"

namespace zembra {
namespace {

using namespace std::string_literals;
using namespace testing;

Value decoded(std::string_view text) {
    return NSJSONSerialization::JSONObjectWithData(text);
}

void expectRefusal(std::string_view text, NSInteger code, std::size_t offset) {
    NSErrorPtr error;
    EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(text, &error), Value());
    EXPECT_EQ(decoded(text), Value());
    ASSERT_THAT(error, test::IsError(NSJSONSerializationErrorDomain, code));
    EXPECT_EQ(error->userInfo()[NSJSONSerializationErrorOffsetKey], Value(offset));
    EXPECT_THAT(error->userInfo().text(),
                AllOf(HasSubstr(" at byte " + std::to_string(offset) + "."), Not(HasSubstr("SECRET"))));
}

std::string repeated(std::string_view part, std::size_t count) {
    std::string text;
    for (std::size_t index = 0; index < count; ++index)
        text += part;
    return text;
}

TEST(NSJSONSerializationTests, EveryFormOfValueIsDecoded) {
    const Value empty = Value::array({});
    const std::pair<std::string, Value> cases[] = {
        {"null", Value::null()},
        {" \t\r\n true ", true},
        {"-0", 0},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"18446744073709551615", std::numeric_limits<std::uint64_t>::max()},
        {"18446744073709551616", 0x1p64},
        {"-9223372036854775809", -0x1p63},
        {"[123456789012345678901234567890]", Value::array({123456789012345678901234567890.0})},
        {"[-0.12345678901234567890123]", Value::array({-0.12345678901234567890123})},
        {"1E-400", 0.0},
        {"[0.123456789012345678901234567890e-400 ]", Value::array({0.0})},
        {"[1.7976931348623157081452742373e308]", Value::array({std::numeric_limits<double>::max()})},
        {"0." + repeated("0", 1200) + "1", 0.0},
        {"5e-324", std::numeric_limits<double>::denorm_min()},
        {R"("")", ""},
        {R"("\"\\\/\b\f\n\r\t\u00e9\uD83D\ude00")", "\"\\/\b\f\n\r\t\u00e9\U0001F600"},
        {"\"a\\u0000b\"", "a\0b"s},
        {"\"\u00e9\U0010FFFF\x7F\"", "\u00e9\U0010FFFF\x7F"},
        {" [ [ ] , {} , [ [ ] ] ] ", Value::array({empty, Value::dictionary({}), Value::array({empty})})},
        {R"({"a":{"b":[1]},"":2})",
         Value::dictionary({{"a", Value::dictionary({{"b", Value::array({1})}})}, {"", 2}})},
        {R"({"a":1,"\u0061":[4,"a string to be freed"],"a":2})", Value::dictionary({{"a", 2}})},
        {R"([{"a\\":1,"b":2},{"a\"":3,"a":4,"b\u0000":5}])",
         Value::array({Value::dictionary({{"a\\", 1}, {"b", 2}}),
                       Value::dictionary({{"a\"", 3}, {"a", 4}, {"b\0"s, 5}})})},
    };
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decoded(text), value);
        EXPECT_EQ(decoded(text).type(), value.type());
        EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(std::string(text)), value);
        EXPECT_EQ(decoded(NSJSONSerialization::dataWithJSONObject(value)), value);
    }
    for (const char* const text : {"-0.0", "-2.47e-324", "-2.4700000000000000000000e-324", "[-0.1e-400]"})
        EXPECT_THAT(decoded(text).text(), HasSubstr("-0.0")) << text << " loses its sign";
}

TEST(NSJSONSerializationTests, WhatIsNoJSONIsRefusedWithItsPlaceAndNotQuoted) {
    const std::pair<std::size_t, std::vector<std::string>> cases[] = {
        {0,
         {"", "null\0"s, ",", "nul", "falsex", "-Infinity", "01", "1e400", "1" + repeated("0", 1081),
          "\xEF\xBB\xBF{}", "\xFE\xFF\0["s}},
        {1, {"]", "[,1]", "[", "[}", "{", "{]", "{,}", "{1:2}", "{'a':1}", "[True]", "[nulll]"}},
        {1, {"[-]", "[+1]", "[1.]", "[.5]", "[1e+]", "[1a]", "[-1e400]", "[\xC2\xA0]"}},
        {1, {"[1.7976931348623159081452742373e308]", "[0.001797693134862315807985659e314]"}},
        {1, {"[1" + repeated("0", 400) + "]"}},
        {2, {"1 2", "1,2", "1]", "{}{}", "1],[2", "[1", "[1}", R"("a)", "\"a\0\""s, R"({"SECRET\x":1})"}},
        {2, {R"(["\u12"])", R"(["\ud800"])", R"(["\udc00"])", R"(["\ud800\u0061"])", R"({"\ud800":1})"}},
        {2, {"[\"\xFF\"]", "[\"\xED\xA0\x80\"]", "[\"\xE2\x82\"]", R"(["\x"])"}},
        {3, {"  \n", "[1]]", "[1,]", "[1 2]", "[] x", "[1,//\n2]", "[\"a\nb\"]", "[\"a\xC0\xAF\"]"}},
        {4, {"\"a\" \"b\"", "[[1]", "[[[]", R"({"a"})", "[\"\\\"\x01\"]"}},
        {5, {R"({"a":})", R"({"a" 1})"}},
        {6, {R"({"a":1)", R"(["a\"])"}},
        {7, {R"({"a":1,})", R"({"a":[1})", R"([{"a":1])"}},
        {9, {R"(["SECRET])"}},
        {12, {R"({"a":{"b":1})"}},
        {14, {R"({"a":"SECRET" "x"})"}},
    };
    for (const auto& [offset, texts] : cases) {
        for (const std::string& text : texts) {
            SCOPED_TRACE(text);
            expectRefusal(text, NSJSONSerializationErrorMalformed, offset);
        }
    }
}

TEST(NSJSONSerializationTests, DepthAndSizeAreLimited) {
    for (const auto& [open, close] : {std::pair{"["s, "]"}, {R"({"a":)"s, "}"}}) {
        const auto nested = [&, open = open, close = close](std::size_t levels) {
            return repeated(open, levels - 1) + "[]" + repeated(close, levels - 1);
        };
        const Value deepest = decoded(nested(512));
        EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(deepest), nested(512));
        EXPECT_EQ(NSJSONSerialization::dataWithJSONObject(Value::array({deepest, Value::dictionary({})})),
                  "[" + repeated(open, 511) + "null" + repeated(close, 511) + ",{}]");
        for (const std::size_t levels : {513u, 1025u, 1'000'000u})
            expectRefusal(nested(levels), NSJSONSerializationErrorTooDeep, 512 * open.size());
        expectRefusal(repeated(open, 1'000'000), NSJSONSerializationErrorTooDeep, 512 * open.size());
    }
    const std::string_view beyondAnyMemory("",
                                           std::numeric_limits<std::size_t>::max());  // only its size is read
    NSErrorPtr error;
    EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(beyondAnyMemory, &error), Value());
    EXPECT_THAT(error, test::IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorTooLarge));
    EXPECT_EQ(NSJSONSerialization::dataWithJSONObject({}), "null");
}

TEST(NSJSONSerializationTests, DictionariesOfAnyOrderAndSizeKeepTheirKeys) {
    // Keys in changing order, absent and repeated ones, the same ones on other levels, of lengths and last
    // letters that a comparison of their first bytes could confuse.
    std::uint32_t random = 1;
    for (const auto& [rows, columns] : {std::pair{500, 20}, {1, 100'000}}) {
        std::string text = "[";
        std::vector<Value> expected;
        for (int row = 0; row < rows; ++row) {
            std::vector<Value::Entry> entries;
            for (int column = 0; column < columns; ++column) {
                random = random * 1664525 + 1013904223;
                const std::uint32_t last = (random >> 10) % static_cast<unsigned>(columns / 5);
                const std::string key = std::string(random >> 20 & 31, 'k') + std::to_string(last);
                const Value inner =
                    random >> 28 & 1 ? Value::dictionary({{key, row}, {key + key, column}}) : Value(column);
                text += (column == 0 ? "{\"" : ",\"") + key + "\":" + inner.text();
                entries.push_back({key, inner});
            }
            text += "},";
            expected.push_back(Value::dictionary(std::move(entries)));
        }
        text.back() = ']';
        EXPECT_TRUE(decoded(text) == Value::array(std::move(expected))) << rows;
    }
}

TEST(NSJSONSerializationTests, ArraysAreHandedOverElementByElement) {
    const std::tuple<std::string, std::vector<Value>, NSInteger> cases[] = {
        {" [1, [2, [3]], {}, null] ", {1, decoded("[2,[3]]"), decoded("{}"), Value::null()}, 0},
        {"[]", {}, 0},
        {R"({"a": [1, 2]})", {}, NSJSONSerializationErrorNoArray},
        {"1", {}, NSJSONSerializationErrorNoArray},
        {"", {}, NSJSONSerializationErrorMalformed},
        {R"([1, "a", nul])", {1, "a"}, NSJSONSerializationErrorMalformed},
        {"[1, 2", {}, NSJSONSerializationErrorMalformed},
        {"[1, 2] 3", {}, NSJSONSerializationErrorMalformed},
        {"[1," + repeated("[", 512) + repeated("]", 512) + "]", {1}, NSJSONSerializationErrorTooDeep},
    };
    for (const auto& [text, received, code] : cases) {
        SCOPED_TRACE(text.substr(0, 100));
        std::vector<Value> elements;
        NSErrorPtr error;
        const auto add = [&elements](Value element) { elements.push_back(std::move(element)); };
        EXPECT_EQ(NSJSONSerialization::enumerateArrayWithData(std::string(text), add, &error), code == 0);
        EXPECT_EQ(elements, received);
        EXPECT_EQ(error == nullptr ? 0 : error->code(), code);
    }
    EXPECT_THROW(NSJSONSerialization::enumerateArrayWithData("[1]", [](Value) { throw 1; }), int);
}

TEST(NSJSONSerializationTests, ValuesOutliveTheirTextAndAreSharedByThreads) {
    std::string text = R"([{"s":"escaped \u00e9, on the heap","t":["short",{"s":"another, on the heap"}]}])";
    const Value records = NSJSONSerialization::JSONObjectWithData(std::move(text));
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([records] {
            for (int round = 0; round < 1000; ++round) {
                Value record = records[0];
                record = record["t"];
                EXPECT_EQ(record[1]["s"], Value("another, on the heap"));
            }
        });
    }
    EXPECT_EQ(records[0]["s"], Value("escaped \u00e9, on the heap"));
}

}  // namespace
}  // namespace zembra
