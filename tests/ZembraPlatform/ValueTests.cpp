#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ZembraPlatform/Value.h>

namespace zembra {
namespace {

using Type = Value::Type;

struct Apple : NSObject {};
struct Pear : NSObject {};

std::string printed(const Value& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

Value nested(std::size_t levels, Value innermost) {
    for (std::size_t level = 0; level < levels; ++level)
        innermost = level % 2 == 0
                        ? Value::array({std::move(innermost)})
                        : Value::dictionary({{"a key beyond fourteen bytes", std::move(innermost)}});
    return innermost;
}

std::string keyNumber(std::size_t number) {
    return "a key of some length, number " + std::to_string(number);
}

TEST(ValueTests, EachFormIsWhatItIsAndAnswersNoToAllElse) {
    const auto object = std::make_shared<Apple>();
    const std::string longText = "more than fourteen bytes";
    const struct {
        Value value;
        Type type;
        std::string_view text;
        std::string_view printed;
    } cases[] = {
        {{}, Type::nothing, "", "(nothing)"},
        {Value(std::shared_ptr<Apple>()), Type::nothing, "", "(nothing)"},
        {Value::null(), Type::null, "null", "null"},
        {true, Type::boolean, "true", "true"},
        {std::numeric_limits<std::int64_t>::min(), Type::integer, "-9223372036854775808",
         "-9223372036854775808"},
        {std::uint8_t{200}, Type::integer, "200", "200"},
        {std::numeric_limits<std::uint64_t>::max(), Type::unsignedInteger, "18446744073709551615",
         "18446744073709551615"},
        {2.0, Type::floating, "2.0", "2.0"},
        {0.1f, Type::floating, "0.10000000149011612", "0.10000000149011612"},
        {-std::numeric_limits<double>::infinity(), Type::floating, "null", "-inf"},
        {"", Type::string, "", R"("")"},
        {"fourteen bytes", Type::string, "fourteen bytes", R"("fourteen bytes")"},
        {longText, Type::string, longText, R"("more than fourteen bytes")"},
        {Date(std::chrono::microseconds(-1)), Type::date, R"("1969-12-31T23:59:59.999999Z")",
         R"("1969-12-31T23:59:59.999999Z")"},
        {Value::array({}), Type::array, "[]", "[]"},
        {Value::array({1, Value(), object}), Type::array, R"([1,"Apple"])", "[1,<Apple>]"},
        {Value::dictionary({}), Type::dictionary, "{}", "{}"},
        {Value::dictionary({{"a", Value::null()}, {"b", "\x01\"\xFF"}}), Type::dictionary,
         "{\"a\":null,\"b\":\"\\u0001\\\"\uFFFD\"}", "{\"a\":null,\"b\":\"\\u0001\\\"\uFFFD\"}"},
        {object, Type::object, "Apple", "<Apple>"},
    };
    for (const auto& [value, type, text, print] : cases) {
        SCOPED_TRACE(print);
        EXPECT_EQ(value.type(), type);
        EXPECT_EQ(value.text(), text);
        EXPECT_EQ(printed(value), print);
        EXPECT_EQ(value.boolean().has_value(), type == Type::boolean);
        EXPECT_EQ(value.number().has_value(), value.isNumber());
        EXPECT_EQ(value.string().has_value(), type == Type::string);
        EXPECT_EQ(value.date().has_value(), type == Type::date);
        EXPECT_EQ(value.as() != nullptr, type == Type::object);
        EXPECT_EQ(value.elements().size(), type == Type::array ? value.count() : 0);
        EXPECT_EQ(value.entries().size(), type == Type::dictionary ? value.count() : 0);
        EXPECT_TRUE(value[7].isNothing());
        EXPECT_TRUE(value[-1].isNothing());
        EXPECT_TRUE(value["missing"].isNothing());

        for (const auto& other : cases)
            EXPECT_EQ(value == other.value, value.type() == type && print == other.printed) << other.printed;
        Value copy = value;
        EXPECT_EQ(copy, value);
        const Value moved = std::move(copy);
        EXPECT_EQ(moved, value);
        EXPECT_TRUE(copy.isNothing());
    }
}

TEST(ValueTests, StringsKeepAnyBytes) {
    for (const std::size_t size : {0u, 1u, 13u, 14u, 15u, 16u, 100000u}) {
        std::string bytes(size, '\0');
        for (std::size_t index = 0; index < size; ++index)
            bytes[index] = static_cast<char>(index * 37);
        const Value value(bytes);
        EXPECT_EQ(value.string(), bytes);
        EXPECT_EQ(value.text(), bytes);
        EXPECT_EQ(value, Value(bytes));
        if (size > 0) {
            bytes.back() ^= 1;
            EXPECT_NE(value, Value(bytes));
        }
    }
    EXPECT_EQ(Value(std::string_view()), Value(""));
}

TEST(ValueTests, NumbersConvertAndCompareByTheirValue) {
    const auto maximum = std::numeric_limits<std::int64_t>::max();
    const auto unsignedMaximum = std::numeric_limits<std::uint64_t>::max();
    const auto nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(Value(2.0).integer(), 2);
    EXPECT_EQ(Value(-0x1p63).integer(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(Value(0x1p63).unsignedInteger(), std::uint64_t{1} << 63);
    EXPECT_EQ(Value(unsignedMaximum).unsignedInteger(), unsignedMaximum);
    for (const Value& fraction : {Value(2.5), Value(1e300), Value(nan), Value(0x1p64)}) {
        EXPECT_EQ(fraction.integer(), std::nullopt);
        EXPECT_EQ(fraction.unsignedInteger(), std::nullopt);
    }
    EXPECT_EQ(Value(0x1p63).integer(), std::nullopt);
    EXPECT_EQ(Value(-1).unsignedInteger(), std::nullopt);
    EXPECT_EQ(Value(unsignedMaximum).integer(), std::nullopt);

    EXPECT_EQ(Value(2), Value(2.0));
    EXPECT_EQ(Value(0.0), Value(-0.0));
    EXPECT_EQ(Value(nan), Value(nan));
    EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(0x1p63));
    EXPECT_NE(Value(maximum), Value(0x1p63));  // equal only after rounding
    EXPECT_NE(Value(unsignedMaximum), Value(0x1p64));
    EXPECT_NE(Value(-1), Value(unsignedMaximum));
    EXPECT_NE(Value(1), Value(true));
    EXPECT_NE(Value(2), Value("2"));
}

TEST(ValueTests, DictionariesKeepTheLastOfEqualKeysAndNoNothing) {
    const Value small = Value::dictionary({{"a", 1}, {"b", 2}, {"a", 3}, {"c", Value()}, {"b", {}}, {5, 6}});
    EXPECT_EQ(printed(small), R"({"a":3})");
    EXPECT_EQ(Value::dictionary({{"a", 1}, {"a", {}}, {"a", 2}}), Value::dictionary({{"a", 2}}));
    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"b", 2}, {"a", 1}}));
    EXPECT_NE(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"a", 1}, {"c", 2}}));
    EXPECT_NE(Value::dictionary({{"a", 1}}), Value::dictionary({{"a", Value::null()}}));
    EXPECT_TRUE(Value::dictionary({{"a", 1}, {"b", Value::null()}}).containsNull());
    EXPECT_FALSE(Value::dictionary({{"a", Value::array({Value::null()})}}).containsNull());
}

TEST(ValueTests, LargeDictionariesFindEveryKey) {
    for (const std::size_t size : {15u, 16u, 17u, 32u, 33u, 100000u}) {
        std::vector<Value::Entry> entries;
        for (std::size_t number = 0; number < size; ++number) {
            entries.push_back({keyNumber(number), "replaced"});
            entries.push_back({keyNumber(number), number});
        }
        const Value dictionary = Value::dictionary(entries);
        std::ranges::reverse(entries);
        const Value inReverse = Value::dictionary(std::move(entries));
        ASSERT_EQ(dictionary.count(), size);
        for (std::size_t number = 0; number < size; ++number)
            ASSERT_EQ(dictionary[keyNumber(number)].integer(), number);
        EXPECT_TRUE(dictionary[keyNumber(size)].isNothing());
        EXPECT_TRUE(dictionary[""].isNothing());
        EXPECT_NE(dictionary, inReverse);
        EXPECT_EQ(inReverse[keyNumber(0)], Value("replaced"));
    }
}

TEST(ValueTests, ObjectsKeepTheirIdentity) {
    auto apple = std::make_shared<Apple>();
    const std::weak_ptr<Apple> watch = apple;
    Value value(apple);
    EXPECT_EQ(value.as<Apple>(), apple);
    EXPECT_EQ(value.as(), apple);
    EXPECT_EQ(value.as<Pear>(), nullptr);
    EXPECT_FALSE(value.as<Apple>().owner_before(apple) || apple.owner_before(value.as<Apple>()));
    EXPECT_EQ(value, Value(std::shared_ptr<NSObject>(apple)));
    EXPECT_NE(value, Value(std::make_shared<Apple>()));

    Value array = Value::array({value, value});
    value = {};
    apple.reset();
    EXPECT_FALSE(watch.expired());
    array = {};
    EXPECT_TRUE(watch.expired());
}

TEST(ValueTests, ElementsAreTakenOnlyFromWhatNobodyElseHolds) {
    const auto apple = std::make_shared<Apple>();
    Value dictionary = Value::dictionary({{"null", Value::null()}, {"apple", apple}});
    {
        Value copy = dictionary;
        EXPECT_EQ(copy.takeValueAt(1).as(), apple);
        EXPECT_EQ(dictionary["apple"].as(), apple);
    }
    EXPECT_EQ(dictionary.takeValueAt(1).as(), apple);
    EXPECT_EQ(apple.use_count(), 1);
    EXPECT_TRUE(dictionary["apple"].isNothing());
    EXPECT_TRUE(dictionary.takeValueAt(0).isNull());
    EXPECT_TRUE(dictionary["null"].isNull());
    EXPECT_TRUE(dictionary.containsNull());
    EXPECT_TRUE(dictionary.takeValueAt(2).isNothing());

    Value array = Value::array({"a string beyond fourteen bytes"});
    EXPECT_EQ(array.takeValueAt(0), Value("a string beyond fourteen bytes"));
    EXPECT_TRUE(array[0].isNothing());
    EXPECT_TRUE(Value(5).takeValueAt(0).isNothing());
}

TEST(ValueTests, AnyDepthIsCopiedComparedPrintedAndLetGo) {
    const std::size_t levels = 1'000'000;
    const auto apple = std::make_shared<Apple>();
    const Value value = nested(levels, apple);
    {
        const Value same = nested(levels, apple);
        EXPECT_TRUE(value == same);
        EXPECT_FALSE(value == nested(levels, std::make_shared<Apple>()));
        EXPECT_LT(same.text().size(), 20'000u);
        EXPECT_THAT(printed(same), testing::HasSubstr("..."));
        EXPECT_EQ(apple.use_count(), 3);
    }
    EXPECT_EQ(apple.use_count(), 2);
}

TEST(ValueTests, LettingGoWalksSharedAndWideTrees) {
    const auto apple = std::make_shared<Apple>();
    std::vector<Value> elements;
    const Value shared = Value::array({apple, Value::dictionary({{keyNumber(1), apple}})});
    for (int index = 0; index < 1000; ++index)
        elements.push_back(Value::array({shared, apple, "a string beyond fourteen bytes", Value::array({}),
                                         Value::dictionary({{keyNumber(2), Value::array({apple})}}), 1}));
    Value tree = Value::array(std::move(elements));
    EXPECT_EQ(apple.use_count(), 1 + 2 + 2000);
    tree = tree[500];  // assigned from within itself
    EXPECT_EQ(apple.use_count(), 1 + 2 + 2);
    tree = {};
    EXPECT_EQ(apple.use_count(), 1 + 2);
    EXPECT_EQ(shared[0].as(), apple);
}

TEST(ValueTests, ThreadsMayShareContents) {
    const Value shared = Value::dictionary({{keyNumber(1), Value::array({keyNumber(2), 1})}});
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([own = shared] {
            for (int round = 0; round < 2000; ++round) {
                Value copy = own;
                const Value inner = copy.takeValueAt(0);
                copy = Value::array({inner, inner[0]});
                EXPECT_EQ(copy[1], inner[0]);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(shared[keyNumber(1)].count(), 2u);
}

}  // namespace
}  // namespace zembra
