// Values of every form, made, read, compared, printed and let go.

#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include <ZembraPlatform/Value.h>

// These tests run on a system that has no randomness to draw a hash's secret from.
unsigned std::random_device::_M_getval() {
    throw std::runtime_error("no randomness");
}

namespace zembra {
namespace {

using namespace testing;
using enum Value::Type;

struct Apple : NSObject {};
struct Pear : NSObject {};

TEST(ValueTests, EachFormIsWhatItIsAndAnswersNoToAllElse) {
    const auto apple = std::make_shared<Apple>();
    const struct {
        Value value;
        Value::Type type;
        std::string_view text;
        std::string_view printed = text;
    } cases[] = {
        {std::shared_ptr<Apple>(), nothing, "", "(nothing)"},
        {Value::null(), null, "null"},
        {true, boolean, "true"},
        {false, boolean, "false"},
        {INT64_MIN, integer, "-9223372036854775808"},
        {UINT64_MAX, unsignedInteger, "18446744073709551615"},
        {2.0, floating, "2.0"},
        {1e22, floating, "1e+22"},
        {-INFINITY, floating, "null", "-inf"},
        {NAN, floating, "null", "nan"},
        {"fourteen bytes", string, "fourteen bytes", R"("fourteen bytes")"},
        {"fifteen bytes !", string, "fifteen bytes !", R"("fifteen bytes !")"},
        {Date(std::chrono::microseconds(-1)), date, R"("1969-12-31T23:59:59.999999Z")"},
        {Date::min(), date, R"("-290308-12-21T19:59:05.224192Z")"},
        {Value::array({}), array, "[]"},
        {Value::array({1, Value(), apple}), array, R"([1,"Apple"])", "[1,<Apple>]"},
        {Value::dictionary({}), dictionary, "{}"},
        {Value::dictionary({{"a\n", "\b\f\r\t\x1f\x7f\"\\/\u00e9\xFF\xE2\x82"}}), dictionary,
         R"({"a\n":"\b\f\r\t\u001f\u007f\"\\/)"
         "\u00e9\uFFFD\uFFFD\uFFFD\"}"},
        {apple, object, "Apple", "<Apple>"},
    };
    for (const auto& [value, type, text, print] : cases) {
        SCOPED_TRACE(print);
        EXPECT_EQ(value.type(), type);
        EXPECT_EQ(value.text(), text);
        EXPECT_EQ(PrintToString(value), print);
        EXPECT_EQ(value.boolean().has_value(), type == boolean);
        EXPECT_EQ(value.number().has_value(), value.isNumber());
        EXPECT_EQ(value.string().has_value(), type == string);
        EXPECT_EQ(value.date().has_value(), type == date);
        EXPECT_EQ(value.as(), type == object ? apple : nullptr);
        EXPECT_EQ(value.as<Pear>(), nullptr);
        EXPECT_EQ(value.elements().size(), type == array ? value.count() : 0);
        EXPECT_EQ(value.entries().size(), type == dictionary ? value.count() : 0);
        const std::size_t end = value.count();
        for (const Value& absent : {value[end], value[-1], value["missing"], Value(value).takeValueAt(end)})
            EXPECT_TRUE(absent.isNothing());
        for (const auto& other : cases)
            EXPECT_EQ(value == other.value, &print == &other.printed) << other.printed;
    }
}

TEST(ValueTests, NumbersConvertAndCompareByTheirValue) {
    EXPECT_EQ(Value(2.0).integer(), 2);
    EXPECT_EQ(Value(-0x1p63).integer(), INT64_MIN);
    EXPECT_EQ(Value(0x1p63).unsignedInteger(), UINT64_MAX / 2 + 1);
    EXPECT_EQ(Value(-1).unsignedInteger(), std::nullopt);
    for (const Value value : {2.5, 0x1p64, double{NAN}})
        EXPECT_TRUE(!value.integer() && !value.unsignedInteger()) << value;
    for (const Value& large : {Value(0x1p63), Value(UINT64_MAX)})
        EXPECT_EQ(large.integer(), std::nullopt) << large;
    EXPECT_EQ(Value::array({2, 0.0, NAN, UINT64_MAX / 2 + 1}), Value::array({2.0, -0.0, NAN, 0x1p63}));
    EXPECT_NE(Value(UINT64_MAX / 2), Value(0x1p63)) << "equal only after rounding";
    EXPECT_NE(Value(UINT64_MAX), Value(0x1p64));
    EXPECT_NE(Value(INT64_MIN), Value(INT64_MIN + 1));
    EXPECT_NE(Value(-1), Value(UINT64_MAX));
}

TEST(ValueTests, DictionariesKeepTheLastOfEqualKeysAndNoNothing) {
    const Value small = Value::dictionary({{"a", 1}, {"b", 2}, {"a", 3}, {"c", Value()}, {"b", {}}, {5, 6}});
    EXPECT_EQ(PrintToString(small), R"({"a":3})");
    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"b", 2}, {"a", 1}}));
    EXPECT_NE(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"a", 1}, {"c", 2}}));
    for (const std::size_t size : {16u, 17u, 100000u}) {
        std::vector<Value::Entry> entries;
        for (std::size_t number = 0; number < 2 * size; ++number)
            entries.push_back({std::to_string(number / 2), number});
        const Value large = Value::dictionary(std::move(entries));
        ASSERT_EQ(large.count(), size);
        for (std::size_t number = 0; number < size; ++number)
            ASSERT_EQ(large[std::to_string(number)].integer(), 2 * number + 1);
        EXPECT_TRUE(large["absent"].isNothing());
    }
}

TEST(ValueTests, ElementsAreTakenOnlyFromWhatNobodyElseHolds) {
    const auto apple = std::make_shared<Apple>();
    Value dictionary = Value::dictionary({{"null", Value::null()}, {"apple", apple}});
    EXPECT_EQ(Value(dictionary).takeValueAt(1).as(), apple);
    EXPECT_EQ(dictionary.takeValueAt(1).as(), apple);
    EXPECT_TRUE(dictionary["apple"].isNothing());
    EXPECT_TRUE(dictionary.takeValueAt(0).isNull());
    EXPECT_TRUE(dictionary["null"].isNull()) << "a null stays";
    EXPECT_EQ(Value::array({apple}).takeValueAt(0).as(), apple);
    EXPECT_EQ(apple.use_count(), 1);
}

TEST(ValueTests, ThreadsShareContents) {
    const Value shared("fifteen bytes !");
    const auto copy = [shared] {
        for (int round = 0; round < 10'000; ++round)
            EXPECT_EQ(Value(shared).text(), "fifteen bytes !");
    };
    const std::jthread one(copy), other(copy);
}

TEST(ValueTests, AnyDepthIsCopiedComparedPrintedAndLetGo) {
    const auto nested = [](Value innermost) {
        for (int level = 0; level < 150'000; ++level)
            innermost = Value::array({Value::dictionary({{"a key beyond fourteen bytes", innermost}})});
        return innermost;
    };
    const auto apple = std::make_shared<Apple>();
    Value value = nested(apple);
    EXPECT_TRUE(value == nested(apple));
    EXPECT_FALSE(value == nested(std::make_shared<Apple>()));
    EXPECT_LT(value.text().size(), 20'000u);
    EXPECT_THAT(PrintToString(value), HasSubstr("..."));
    value = Value::array({value, value, Value::array({apple, Value::array({})}), apple});
    value = value[2];  // assigned from within itself
    EXPECT_EQ(apple.use_count(), 2);
    value = {};
    EXPECT_EQ(apple.use_count(), 1);
}

}  // namespace
}  // namespace zembra
