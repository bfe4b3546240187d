#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>

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
    const auto object = [](std::initializer_list<Value::Entry> entries) {
        return Value::dictionary(entries);
    };
    const struct {
        std::string text;
        Value value;
    } cases[] = {
        {"null", Value::null()},
        {" \t\r\n true ", true},
        {"0", 0},
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
        {" [ [ ] , {} , [ [ ] ] ] ", Value::array({empty, object({}), Value::array({empty})})},
        {R"({"a":{"b":[1]},"":2})", object({{"a", object({{"b", Value::array({1})}})}, {"", 2}})},
        {R"({"a":1,"\u0061":[4,"a string to be freed"],"a":2})", object({{"a", 2}})},
        {R"({"a\\":1,"a\"":2,"a":3,"b\u0000":4})", object({{"a\\", 1}, {"a\"", 2}, {"a", 3}, {"b\0"s, 4}})},
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
        std::size_t offset;
        std::vector<std::string> texts;
    } cases[] = {
        {0,
         {"", "null\0"s, ",", "nul", "nullx", "falsex", "truee", "undefined", "-Infinity", "01", "1e400",
          "1" + repeated("0", 1081), "\xEF\xBB\xBF{}", "\xFE\xFF\0["s}},
        {1, {"]",       "[,1]",   "[",     "[}",      "{",    "{]",    "{,}",      "{1:2}",
             "{'a':1}", "[True]", "[NaN]", "[nulll]", "[-]",  "[+1]",  "[1.]",     "[.5]",
             "[1e]",    "[1e+]",  "[0x1]", "[1_0]",   "[1a]", "[--1]", "[-1e400]", "[\xC2\xA0]"}},
        {1, {"[1.7976931348623159081452742373e308]", "[1" + repeated("0", 400) + "]"}},
        {2,
         {"1 2", "1,2", "1]", "{}{}", "1],[2", "[1", "[1}", R"("a)", R"(["\x"])", R"(["\u12"])",
          R"(["\ud800"])", R"(["\udc00"])", R"(["\ud800\u0061"])", R"({"\ud800":1})", "\"a\0\""s,
          "[\"\xFF\"]", "[\"\xED\xA0\x80\"]", "[\"\xE2\x82\"]"}},
        {3, {"  \n", "[1]]", "[1,]", "[1 2]", "[] x", "[1,//\n2]", "[\"a\nb\"]", "[\"a\xC0\xAF\"]"}},
        {4, {"\"a\" \"b\"", "[[1]", "[[[]", R"({"a"})", "[\"\\n\x01\"]"}},
        {5, {R"({"a":})", R"({"a" 1})"}},
        {6, {R"({"a":1)", R"(["a\"])"}},
        {7, {R"({"a":1,})", R"({"a":1 "b":2})", R"({"a":[1})", R"([{"a":1])"}},
        {12, {R"({"a":{"b":1})"}},
    };
    for (const auto& [offset, texts] : cases) {
        for (const std::string& text : texts) {
            SCOPED_TRACE(text);
            const NSErrorPtr error = refusal(text);
            EXPECT_EQ(error->code(), NSJSONSerializationErrorMalformed);
            EXPECT_EQ(error->userInfo()[NSJSONSerializationErrorOffsetKey], Value(offset)) << *error;
        }
    }
}

TEST(NSJSONSerializationTests, ErrorsQuoteNothingOfTheText) {
    for (const auto& text : {R"({"access_token":"SECRET",})", R"({"token":"SECRET" "x"})",
                             R"({"SECRET\x":1})", R"(["SECRET])"}) {
        std::ostringstream printed;
        printed << *refusal(text) << refusal(text)->userInfo();
        EXPECT_THAT(printed.str(), testing::HasSubstr(" at byte "));
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

TEST(NSJSONSerializationTests, DictionariesOfAnyOrderAndSizeKeepTheirKeys) {
    // Keys in changing order, absent and repeated ones, the same ones on other levels, of lengths and last
    // letters that a comparison of their first bytes could confuse.
    std::string text = "[";
    std::vector<Value> expected;
    std::uint32_t random = 1;
    for (int row = 0; row < 500; ++row) {
        std::vector<Value::Entry> entries;
        for (int column = 0; column < 20; ++column) {
            random = random * 1664525 + 1013904223;
            const std::string key = std::string(random >> 20 & 31, 'k') + std::to_string(random >> 30);
            const Value inner =
                random >> 28 & 1 ? Value::dictionary({{key, row}, {key + key, column}}) : Value(column);
            text += (column == 0 ? "{\"" : ",\"") + key + "\":" + inner.text();
            entries.push_back({key, inner});
        }
        text += row < 499 ? "}," : "}]";
        expected.push_back(Value::dictionary(std::move(entries)));
    }
    EXPECT_EQ(decoded(text), Value::array(std::move(expected)));

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

TEST(NSJSONSerializationTests, ArraysAreHandedOverElementByElement) {
    const struct {
        std::string text;
        std::vector<Value> received;
        NSInteger code;  // of the error, 0 without one
    } cases[] = {
        {R"( [1, [2, [3]], {"a": [4]}, null] )",
         {1, decoded("[2,[3]]"), decoded(R"({"a":[4]})"), Value::null()},
         0},
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
        EXPECT_EQ(NSJSONSerialization::enumerateArrayWithData(std::string(text), [](Value) {}), code == 0);
        EXPECT_EQ(elements, received);
        EXPECT_EQ(error == nullptr ? 0 : error->code(), code);
        if (code != NSJSONSerializationErrorMalformed) continue;
        EXPECT_EQ(error->userInfo(), refusal(text)->userInfo());
    }
    EXPECT_THROW(
        NSJSONSerialization::enumerateArrayWithData("[1]", [](Value) { throw std::length_error(""); }),
        std::length_error);
}

TEST(NSJSONSerializationTests, ValuesOutliveTheirTextAndTheirNeighbours) {
    // Strings of all lengths around those at which they are kept otherwise, half of them escaped, in records
    // of which a part is kept here and a part let go on other threads.
    std::string text = "[";
    std::vector<Value> expected;
    for (std::size_t number = 0; number < 3000; ++number) {
        const std::string letters(number % 700 < 40 ? number % 40 : number % 700, 'x');
        text += R"({"s":")" + letters + (number % 2 == 0 ? R"(\u00e9",)" : "\",");
        text += R"("t":[")" + letters + R"("],"other":"what is let go of the record"},)";
        expected.push_back(
            Value::array({letters + (number % 2 == 0 ? "\u00e9" : ""), Value::array({letters})}));
    }
    text.back() = ']';
    Value records = decoded(text);
    std::vector<Value> kept;
    for (std::size_t index = 0; index < expected.size(); ++index)
        kept.push_back(Value::array({records[index]["s"], records[index]["t"]}));
    std::vector<std::thread> threads;
    for (std::size_t start = 0; start < 4; ++start) {
        threads.emplace_back([start, copy = records, &kept, &expected]() mutable {
            for (std::size_t index = start; index < expected.size(); index += 4) {
                EXPECT_EQ(std::exchange(kept[index], {}), expected[index]);
                kept[index] = copy[index]["t"];
            }
        });
    }
    records = {};
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t index = 0; index < expected.size(); ++index)
        EXPECT_EQ(kept[index], expected[index][1]);
}

TEST(NSJSONSerializationTests, ElementsMayGoToOtherThreadsAtOnce) {
    const std::string record = R"({"a key that is longer than some":["a string that is longer","b"]})";
    std::vector<std::thread> threads;
    std::vector<Value> batch;
    const auto receive = [&](Value element) {
        batch.push_back(std::move(element));
        if (batch.size() < 100) return;
        threads.emplace_back([&record, batch = std::exchange(batch, {})] {
            for (const Value& own : batch)
                EXPECT_EQ(own.text(), record);
        });
    };
    EXPECT_TRUE(NSJSONSerialization::enumerateArrayWithData("[" + repeated(record + ",", 1999) + record + "]",
                                                            receive));
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(threads.size(), 20u);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(NSJSONSerializationTests, AKeptValueKeepsLittleBesideIt) {
    const std::string record =
        R"({"id":"an identifier","list":["some of its elements"],"text":")" + std::string(300, 'x') + "\"},";
    std::string text = "[" + repeated(record, 10'000);
    text.back() = ']';
    const std::size_t before = mallinfo2().uordblks;
    Value records = decoded(text);
    const std::vector<Value> kept{records[100]["text"], records[5000]["list"], records[9000]};
    EXPECT_GT(mallinfo2().uordblks, before + text.size());
    records = {};
    EXPECT_LT(mallinfo2().uordblks, before + 20'000);
}
#endif

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
