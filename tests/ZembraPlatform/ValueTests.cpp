#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/Value.h>

// These tests run on a system that has no randomness to draw a hash's secret from.
unsigned std::random_device::_M_getval() {
    throw std::runtime_error("no randomness");
}

namespace zembra {
namespace {

using namespace testing;
using Type = Value::Type;
using Int64 = std::numeric_limits<std::int64_t>;
using UInt64 = std::numeric_limits<std::uint64_t>;
using Double = std::numeric_limits<double>;

struct Apple : NSObject {};
struct Pear : NSObject {};

Value nested(std::size_t levels, Value innermost) {
    for (std::size_t level = 0; level < levels; level += 2)
        innermost = Value::array({Value::dictionary({{"a key beyond fourteen bytes", innermost}})});
    return innermost;
}

std::string keyNumber(std::size_t number) {
    return "a key of some length, number " + std::to_string(number);
}

TEST(ValueTests, EachFormIsWhatItIsAndAnswersNoToAllElse) {
    const auto object = std::make_shared<Apple>();
    const std::string control = R"({"a\n":null,"b":"\b\f\r\t\u001f\u007f\"\\/)"
                                "\u00e9\uFFFD\uFFFD\uFFFD\"}";
    const struct {
        Value value;
        Type type;
        std::string_view text;
        std::string_view printed = text;
    } cases[] = {
        {{}, Type::nothing, "", "(nothing)"},
        {std::shared_ptr<Apple>(), Type::nothing, "", "(nothing)"},
        {Value::null(), Type::null, "null"},
        {true, Type::boolean, "true"},
        {Int64::min(), Type::integer, "-9223372036854775808"},
        {std::uint8_t{200}, Type::integer, "200"},
        {UInt64::max(), Type::unsignedInteger, "18446744073709551615"},
        {2.0, Type::floating, "2.0"},
        {1e22, Type::floating, "1e+22"},
        {0.1f, Type::floating, "0.10000000149011612"},
        {-Double::infinity(), Type::floating, "null", "-inf"},
        {Double::quiet_NaN(), Type::floating, "null", "nan"},
        {"", Type::string, "", R"("")"},
        {"fourteen bytes", Type::string, "fourteen bytes", R"("fourteen bytes")"},
        {"fifteen bytes !", Type::string, "fifteen bytes !", R"("fifteen bytes !")"},
        {Date(std::chrono::microseconds(-1)), Type::date, R"("1969-12-31T23:59:59.999999Z")"},
        {Date::min(), Type::date, R"("-290308-12-21T19:59:05.224192Z")"},
        {Value::array({}), Type::array, "[]"},
        {Value::array({1, Value(), object}), Type::array, R"([1,"Apple"])", "[1,<Apple>]"},
        {Value::dictionary({}), Type::dictionary, "{}"},
        {Value::dictionary({{"a\n", Value::null()}, {"b", "\b\f\r\t\x1f\x7f\"\\/\u00e9\xFF\xE2\x82"}}),
         Type::dictionary, control},
        {object, Type::object, "Apple", "<Apple>"},
    };
    for (const auto& [value, type, text, print] : cases) {
        SCOPED_TRACE(print);
        EXPECT_EQ(value.type(), type);
        EXPECT_EQ(value.text(), text);
        EXPECT_EQ(PrintToString(value), print);
        EXPECT_EQ(value.boolean().has_value(), type == Type::boolean);
        EXPECT_EQ(value.number().has_value(), value.isNumber());
        EXPECT_EQ(value.string().has_value(), type == Type::string);
        EXPECT_EQ(value.date().has_value(), type == Type::date);
        EXPECT_EQ(value.as() != nullptr, type == Type::object);
        EXPECT_EQ(value.as<Pear>(), nullptr);
        EXPECT_EQ(value.elements().size(), type == Type::array ? value.count() : 0);
        EXPECT_EQ(value.entries().size(), type == Type::dictionary ? value.count() : 0);
        for (const Value& absent : {value[7], value[-1], value["missing"], Value(value).takeValueAt(7)})
            EXPECT_TRUE(absent.isNothing());
        for (const auto& other : cases)
            EXPECT_EQ(value == other.value, type == other.type && print == other.printed) << other.printed;
        Value copy = value;
        EXPECT_EQ(Value(std::move(copy)), value);
        EXPECT_TRUE(copy.isNothing());
    }
}

TEST(ValueTests, NumbersConvertAndCompareByTheirValue) {
    const double nan = Double::quiet_NaN();
    EXPECT_EQ(Value(2.0).integer(), 2);
    EXPECT_EQ(Value(-0x1p63).integer(), Int64::min());
    EXPECT_EQ(Value(0x1p63).unsignedInteger(), std::uint64_t{1} << 63);
    EXPECT_EQ(Value(UInt64::max()).unsignedInteger(), UInt64::max());
    EXPECT_EQ(Value(-1).unsignedInteger(), std::nullopt);
    for (const Value& value : {Value(2.5), Value(0x1p64), Value(nan)})
        EXPECT_TRUE(!value.integer() && !value.unsignedInteger()) << value;
    for (const Value& large : {Value(0x1p63), Value(UInt64::max())})
        EXPECT_EQ(large.integer(), std::nullopt) << large;
    EXPECT_EQ(Value::array({2, 0.0, nan, std::uint64_t{1} << 63}), Value::array({2.0, -0.0, nan, 0x1p63}));
    EXPECT_NE(Value(Int64::max()), Value(0x1p63)) << "equal only after rounding";
    EXPECT_NE(Value(UInt64::max()), Value(0x1p64));
    EXPECT_NE(Value(-1), Value(UInt64::max()));
}

TEST(ValueTests, DictionariesKeepTheLastOfEqualKeysAndNoNothing) {
    const Value small = Value::dictionary({{"a", 1}, {"b", 2}, {"a", 3}, {"c", Value()}, {"b", {}}, {5, 6}});
    EXPECT_EQ(PrintToString(small), R"({"a":3})");
    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"b", 2}, {"a", 1}}));
    EXPECT_NE(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"a", 1}, {"c", 2}}));
    EXPECT_NE(Value::dictionary({{"a", 1}}), Value::dictionary({{"a", Value::null()}}));
    for (const std::size_t size : {15u, 16u, 17u, 33u, 100000u}) {
        std::vector<Value::Entry> entries;
        for (std::size_t number = 0; number < 2 * size; ++number)
            entries.push_back({keyNumber(number / 2), number});
        const Value large = Value::dictionary(std::move(entries));
        ASSERT_EQ(large.count(), size);
        for (std::size_t number = 0; number < size; ++number)
            ASSERT_EQ(large[keyNumber(number)].integer(), 2 * number + 1);
        EXPECT_TRUE(large[keyNumber(size)].isNothing() && large[std::string_view()].isNothing());
    }
}

TEST(ValueTests, ElementsAreTakenOnlyFromWhatNobodyElseHolds) {
    const auto apple = std::make_shared<Apple>();
    Value dictionary = Value::dictionary({{"null", Value::null()}, {"apple", apple}});
    Value array = Value::array({"a string beyond fourteen bytes"});
    EXPECT_EQ(Value(dictionary).takeValueAt(1).as<Apple>(), apple);
    EXPECT_EQ(dictionary.takeValueAt(1).as(), apple);
    EXPECT_EQ(apple.use_count(), 1);
    EXPECT_TRUE(dictionary["apple"].isNothing());
    EXPECT_TRUE(dictionary.takeValueAt(0).isNull());
    EXPECT_TRUE(dictionary["null"].isNull()) << "a null stays";
    EXPECT_EQ(array.takeValueAt(0), Value("a string beyond fourteen bytes"));
    EXPECT_TRUE(array[0].isNothing());
}

TEST(ValueTests, AnyDepthIsCopiedComparedPrintedAndLetGo) {
    const std::size_t levels = 1'000'000;
    const auto apple = std::make_shared<Apple>();
    Value value = nested(levels, apple);
    EXPECT_TRUE(value == nested(levels, apple));
    EXPECT_FALSE(value == nested(levels, std::make_shared<Apple>()));
    EXPECT_LT(value.text().size(), 20'000u);
    EXPECT_THAT(PrintToString(value), HasSubstr("..."));
    EXPECT_EQ(apple.use_count(), 2);
    value = Value::array({value, value, Value::array({apple, Value::array({})}), apple});
    value = value[2];  // assigned from within itself
    EXPECT_EQ(apple.use_count(), 2);
    value = {};
    EXPECT_EQ(apple.use_count(), 1);
}

}  // namespace
}  // namespace zembra
