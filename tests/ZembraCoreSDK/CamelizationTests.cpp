#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/NSString.h>

namespace zembra {
namespace {

using namespace std::string_literals;

const std::optional<std::string> kNothing;

TEST(CamelizationTests, FollowsTheByteRule) {
    const struct {
        std::string key;
        std::optional<std::string> name;
    } examples[] = {
        {"", ""},
        {"id", "id"},
        {"ABC", "ABC"},
        {"account_id", "accountId"},
        {"created_at", "createdAt"},
        {"ABC_def", "ABCDef"},
        {"a_B", "aB"},
        // Of two separators the first is dropped and the second kept; a third starts anew.
        {"_id", "Id"},
        {"__id", "_id"},
        {"user__name", "user_name"},
        {"user___name", "user_Name"},
        {"user__", "user_"},
        {"foo-bar", "fooBar"},
        {"foo bar", "fooBar"},
        {"a@b[c`d{e", "aBCDE"},
        // Digits are separators too.
        {"a_1", "a1"},
        {"a1b2c", "aBC"},
        {"video_720p", "video70p"},
        {"address_line1_text", "addressLine_text"},
        // A zero byte that is kept ends the result before anything else is judged; one that is dropped does
        // not.
        {"a_\0b"s, "a"},
        {"a_\0_ézz"s, "a"},
        {"a\0b"s, "aB"},
        // Of other characters only as many bytes are read as there are UTF-16 units.
        {"cafés", kNothing},
        {"xÃ©yz", kNothing},
        {"€_", kNothing},
        {"a_éabc", kNothing},
        {"_€éabc", "\xE2\xAC\xA9"},
        {"_€😀abcd", kNothing},
        // No string at all.
        {"\xC3", kNothing},
        {"caf\xE9", kNothing},
        {"name\xE9_", kNothing},
    };
    for (const auto& [key, name] : examples) {
        EXPECT_EQ(camelizedString(key), name) << '"' << key << '"';
        EXPECT_TRUE(camelizationEnds(key)) << '"' << key << '"';
    }
}

TEST(CamelizationTests, LetterTestsTakeASCIIRangesOnly) {
    for (int code = 0; code < 256; ++code) {
        const char byte = static_cast<char>(code);
        EXPECT_EQ(IsUppercase(byte), code >= 65 && code <= 90) << code;
        EXPECT_EQ(IsLowercase(byte), code >= 97 && code <= 122) << code;
    }
}

/// The rule, step by step: what is written, or `std::nullopt` where the conversion goes on for ever.
std::optional<std::string> written(std::string_view s, std::size_t n) {
    const auto isLetter = [](char c) { return IsUppercase(c) || IsLowercase(c); };
    std::string out(n + 1, '\0');
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < n) {
        if (isLetter(s[i])) {
            out[j] = s[i];
            i += 1;
        } else if (i + 1 < n) {
            out[j] = IsLowercase(s[i + 1]) ? static_cast<char>(s[i + 1] - 32) : s[i + 1];
            i += 2;
        } else {
            return std::nullopt;
        }
        j += 1;
    }
    return out.c_str();
}

TEST(CamelizationTests, AgreesWithThePlainRuleOnRandomStrings) {
    const std::vector<std::string> pieces{"a", "z",   "Q", "word", "_", "_",   "-",
                                          "1", "\0"s, "é", "€",    "😀", "\x80"};
    std::mt19937 random(20);
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    int ended = 0;
    int endless = 0;
    for (int round = 0; round < 200'000; ++round) {
        // Mostly plain keys; one in four holds anything.
        const std::size_t kinds = round % 4 == 0 ? pieces.size() : 8;
        std::string key;
        for (std::size_t rest = below(round % 50 == 0 ? 80 : 12); rest > 0; --rest)
            key += pieces[below(kinds)];
        // In memory of its own size, so that a sanitizer sees what is read beyond.
        const std::unique_ptr<char[]> bytes(new char[key.size()]);
        std::ranges::copy(key, bytes.get());
        const std::string_view string(bytes.get(), key.size());

        if (!isWellFormedUTF8(key)) {
            EXPECT_TRUE(camelizationEnds(string));
            EXPECT_EQ(camelizedString(string), std::nullopt);
            continue;
        }
        const auto expected = written(key, lengthOfString(key));
        ASSERT_EQ(camelizationEnds(string), expected.has_value()) << '"' << key << '"';
        ++(expected ? ended : endless);
        if (expected) {
            ASSERT_EQ(camelizedString(string), stringWithUTF8String(*expected)) << '"' << key << '"';
        }
    }
    EXPECT_GT(ended, 50'000);
    EXPECT_GT(endless, 50'000);
}

void camelizeWithTerminateHandler(const std::string& key) {
    std::set_terminate([] {
        std::fputs("the host's handler", stderr);
        std::_Exit(3);
    });
    const std::unique_ptr<char[]> bytes(new char[key.size()]);
    std::ranges::copy(key, bytes.get());
    (void)camelizedString({bytes.get(), key.size()});
}

TEST(CamelizationDeathTests, EndlessConversionTerminatesTheProcess) {
    for (const std::string& key :
         {"_"s, "name_"s, "line1"s, "a__b_"s, "größe"s, "aé"s, "abcdefg_"s, std::string(64, 'x') + '_',
          std::string(63, 'x') + '_', std::string(100'000, '1') + '_', "\0"s}) {
        EXPECT_FALSE(camelizationEnds(key)) << key;
        EXPECT_EXIT(camelizeWithTerminateHandler(key), testing::ExitedWithCode(3), "the host's handler")
            << key;
    }
}

TEST(ScreeningTests, DropsEndlessKeysAtAnyDepth) {
    const Value json = NSJSONSerialization::JSONObjectWithData(
        R"({"name": "x", "name_": 1, "tags": ["a", {"line1": [], "ok": null}, [{"_": 0}]],
            "owner": {"first_name": {"größe": 1}}, "empty": {}})");
    const Value screened = NSJSONSerialization::JSONObjectWithData(
        R"({"name": "x", "tags": ["a", {"ok": null}, [{}]], "owner": {"first_name": {}}, "empty": {}})");
    ASSERT_FALSE(screened.isNothing());
    EXPECT_EQ(withoutEndlessKeys(json), screened);
    EXPECT_EQ(withoutEndlessKeys(Value::dictionary({{"_", 1}})), Value::dictionary({}));
    for (const Value& plain : {Value(), Value::null(), Value("name_"), Value(1), Value::array({})})
        EXPECT_EQ(withoutEndlessKeys(plain), plain);
}

TEST(ScreeningTests, SharesWhatStaysAsItIs) {
    const Value kept = Value::dictionary({{"fine", Value::array({1, 2})}});
    const Value all = Value::dictionary({{"kept", kept}, {"cut", Value::dictionary({{"x1", 1}})}});
    EXPECT_EQ(withoutEndlessKeys(kept).entries().data(), kept.entries().data());
    EXPECT_EQ(withoutEndlessKeys(all)["kept"].entries().data(), kept.entries().data());
    EXPECT_EQ(withoutEndlessKeys(all)["cut"], Value::dictionary({}));
}

TEST(ScreeningTests, NeedsNoStackForDeepValues) {
    Value deep = Value::dictionary({{"name_", 1}});
    for (int level = 0; level < 300'000; ++level)
        deep =
            level % 2 == 0 ? Value::array({std::move(deep)}) : Value::dictionary({{"key", std::move(deep)}});
    Value screened = withoutEndlessKeys(std::move(deep));
    for (int level = 0; level < 300'000; ++level)
        screened = level % 2 == 0 ? screened["key"] : screened[0];
    EXPECT_EQ(screened, Value::dictionary({}));
}

}  // namespace
}  // namespace zembra
