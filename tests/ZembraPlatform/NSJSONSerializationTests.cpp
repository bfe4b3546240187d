// JSON text to values and back.

#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

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
    SCOPED_TRACE(text.substr(0, 100));
    NSErrorPtr error;
    EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(text, &error), Value());
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
    const std::pair<std::string, Value> cases[] = {
        {"null", Value::null()},
        {" \t\r\n true ", true},
        {"18446744073709551615", UINT64_MAX},
        {"-9223372036854775809", -0x1p63},
        {"[-0.12345678901234567890123]", Value::array({-0.12345678901234567890123})},
        {"0.123456789012345678901234567890E-400", 0.0},
        {"[1.7976931348623157081452742373e308]", Value::array({0x1.fffffffffffffp1023})},
        {R"("\"\\\/\b\f\n\r\t\u00e9\uD83D\ude00")", "\"\\/\b\f\n\r\t\u00e9\U0001F600"},
        {"\"a\\u0000\U0010FFFF\x7F\"", "a\0\U0010FFFF\x7F"s},
        {" [ [ ] , {} ] ", Value::array({Value::array({}), Value::dictionary({})})},
        {R"({"a":1,"\u0061":[4,"a string to be freed"],"a":2,"":""})",
         Value::dictionary({{"a", 2}, {"", ""}})},
        {R"([{"a":0},{"ab":0},{"a\\":1,"b":2},{"a\"":3,"a":4,"b\u0000":5}])",
         Value::array({Value::dictionary({{"a", 0}}), Value::dictionary({{"ab", 0}}),
                       Value::dictionary({{"a\\", 1}, {"b", 2}}),
                       Value::dictionary({{"a\"", 3}, {"a", 4}, {"b\0"s, 5}})})},
    };
    for (const auto& [text, value] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decoded(text), value);
        EXPECT_EQ(decoded(text).type(), value.type());
        EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(std::string(text)), value);
        EXPECT_EQ(decoded(NSJSONSerialization::dataWithJSONObject(value)), value);
    }
    for (const char* const text : {"-0.0", "-2.4700000000000000000000e-324"})
        EXPECT_THAT(decoded(text).text(), HasSubstr("-0.0")) << "loses its sign";
}

TEST(NSJSONSerializationTests, WhatIsNoJSONIsRefusedWithItsPlaceAndNotQuoted) {
    const std::pair<std::size_t, std::vector<std::string>> cases[] = {
        {0, {"", ",", "nul", "falsex", "null\0"s, "1" + repeated("0", 1081), "\xEF\xBB\xBF{}"}},
        {1, {"]", "[", "{", "{1:2}", "[\xC2\xA0]", "[1.7976931348623159081452742373e308]"}},
        {1, {"[0.001797693134862315807985659e314]"}},
        {2,
         {"1 2", "1,2", "{}{}", "1],[2", "[1", R"("a)", R"({"SECRET\x":1})", R"({"\ud800":1})",
          "[\"\xFF\"]"}},
        {3, {"  \n", "[1]]", "[1,]", "[\"a\nb\"]", "[\"a\xC0\xAF\"]"}},
        {4, {"[[1]", R"({"a"})", "[\"\\\"\x1F\"]"}},
        {6, {R"({"a":1)", R"(["a\"])"}},
        {9, {R"(["SECRET])"}},
        {14, {R"({"a":"SECRET" "x"})"}},
    };
    for (const auto& [offset, texts] : cases) {
        for (const std::string& text : texts)
            expectRefusal(text, NSJSONSerializationErrorMalformed, offset);
    }
}

TEST(NSJSONSerializationTests, DepthAndSizeAreLimited) {
    for (const auto& [open, close] : {std::pair{"["s, "]"}, {R"({"a":)"s, "}"}}) {
        const auto nested = [&, left = open, right = close](std::size_t levels) {
            return repeated(left, levels - 1) + "[]" + repeated(right, levels - 1);
        };
        const Value deepest = decoded(nested(512));
        EXPECT_EQ(deepest.text(), nested(512));
        EXPECT_EQ(Value::array({deepest}).text(),
                  "[" + repeated(open, 511) + "null" + repeated(close, 511) + "]");
        for (const std::string& text : {nested(513), nested(1'000'000), repeated(open, 1'000'000)})
            expectRefusal(text, NSJSONSerializationErrorTooDeep, 512 * open.size());
    }
    const std::string_view beyondAnyMemory("", SIZE_MAX);  // only its size is read
    NSErrorPtr error;
    EXPECT_EQ(NSJSONSerialization::JSONObjectWithData(beyondAnyMemory, &error), Value());
    EXPECT_THAT(error, test::IsError(NSJSONSerializationErrorDomain, NSJSONSerializationErrorTooLarge));
    EXPECT_EQ(NSJSONSerialization::dataWithJSONObject({}), "null");
}

TEST(NSJSONSerializationTests, DictionariesOfAnyOrderAndSizeKeepTheirKeys) {
    // Keys in changing order, absent and repeated ones, and the same ones on other levels.
    std::mt19937 random;
    for (const auto& [rows, columns] : {std::pair{500, 20u}, {1, 100'000u}}) {
        std::string text = "[";
        std::vector<Value> expected;
        for (int row = 0; row < rows; ++row) {
            std::vector<Value::Entry> entries;
            text += '{';
            for (unsigned column = 0; column < columns; ++column) {
                const std::string key = std::to_string(random() % (4 * columns));
                const Value inner = Value::dictionary({{key, row}, {key + key, column}});
                text += '"' + key + "\":" + inner.text() + ",}"[column + 1 == columns];
                entries.push_back({key, inner});
            }
            text += ',';
            expected.push_back(Value::dictionary(std::move(entries)));
        }
        text.back() = ']';
        EXPECT_TRUE(decoded(text) == Value::array(std::move(expected))) << rows;
    }
}

TEST(NSJSONSerializationTests, ArraysAreHandedOverElementByElement) {
    const struct {
        std::string text;
        std::vector<Value> received;
        NSInteger error = 0;
    } cases[] = {
        {" [1, [2, [3]], null] ", {1, decoded("[2,[3]]"), Value::null()}},
        {R"({"a": [1]})", {}, NSJSONSerializationErrorNoArray},
        {"1", {}, NSJSONSerializationErrorNoArray},
        {R"([1, "a", nul])", {1, "a"}, NSJSONSerializationErrorMalformed},
        {"[1", {}, NSJSONSerializationErrorMalformed},
        {"[1," + repeated("[", 512) + repeated("]", 512) + "]", {1}, NSJSONSerializationErrorTooDeep},
    };
    for (const auto& [text, received, code] : cases) {
        SCOPED_TRACE(text.substr(0, 100));
        std::vector<Value> elements;
        NSErrorPtr error;
        const auto add = [&elements](Value element) { elements.push_back(std::move(element)); };
        EXPECT_EQ(NSJSONSerialization::enumerateArrayWithData(std::string(text), add, &error), code == 0);
        EXPECT_EQ(elements, received);
        EXPECT_EQ(error ? error->code() : 0, code);
    }
    EXPECT_THROW(NSJSONSerialization::enumerateArrayWithData("[1]", [](Value) { throw 1; }), int);
}

}  // namespace
}  // namespace zembra
