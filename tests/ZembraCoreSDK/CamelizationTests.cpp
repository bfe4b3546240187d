// How JSON keys become property names, which keys never do, and how JSON is screened for those.

#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <ZembraCoreSDK/QVDataObject.h>

#include <ZembraPlatform/NSJSONSerialization.h>
#include <ZembraPlatform/NSString.h>

namespace zembra {
namespace {

using namespace std::string_literals;

TEST(CamelizationTests, FollowsTheByteRule) {
    const std::pair<std::string, std::string> rows[] = {
        {"", ""},
        {"id", "id"},
        {"account_id", "accountId"},
        {"ABC_def", "ABCDef"},
        {"a_B", "aB"},
        {"a@b[c`d{e", "aBCDE"},
        {"user__Zone", "user_Zone"},
        // Of two separators the second is kept; a third starts anew.
        {"_id", "Id"},
        {"__id", "_id"},
        {"user___name", "user_Name"},
        // Digits are separators.
        {"a_1", "a1"},
        {"video_720p", "video70p"},
        // A zero byte that is kept ends the result before anything else is judged; one that is dropped does
        // not.
        {"a_\0b"s, "a"},
        {"a_\0_ézz"s, "a"},
        {"a\0b"s, "aB"},
        // Of other characters as many bytes are read as there are UTF-16 units.
        {"_€éabc", "\xE2\xAC\xA9"},
    };
    for (const auto& [key, name] : rows)
        EXPECT_EQ(camelizedString(key), name) << key;
    for (const char* nothing : {"cafés", "€_", "_€😀abcd", "name\xE9_"}) {
        EXPECT_EQ(camelizedString(nothing), std::nullopt) << nothing;
        EXPECT_TRUE(camelizationEnds(nothing)) << nothing;
    }
}

TEST(CamelizationTests, LetterTestsTakeASCIIRangesOnly) {
    for (int code = 0; code < 256; ++code) {
        const char byte = static_cast<char>(code);
        EXPECT_EQ(IsUppercase(byte), code >= 65 && code <= 90) << code;
        EXPECT_EQ(IsLowercase(byte), code >= 97 && code <= 122) << code;
    }
}

/// The rule, step by step: the result, or `std::nullopt` where the conversion goes on for ever.
std::optional<std::optional<std::string>> camelized(std::string_view key) {
    std::string out;
    const std::size_t count = isWellFormedUTF8(key) ? lengthOfString(key) : 0;
    for (std::size_t i = 0; i < count; ++i) {
        const bool isSeparator = !IsUppercase(key[i]) && !IsLowercase(key[i]);
        if (isSeparator && ++i == count) return std::nullopt;
        out += isSeparator && IsLowercase(key[i]) ? static_cast<char>(key[i] - 32) : key[i];
    }
    return isWellFormedUTF8(key) ? stringWithUTF8String(out.c_str()) : std::nullopt;
}

TEST(CamelizationTests, AgreesWithThePlainRuleOnRandomStrings) {
    const std::vector<std::string> pieces{"a", "z",   "Z", "word", "_", "_",   "-",
                                          "1", "\0"s, "é", "€",    "😀", "\x80"};
    const std::size_t kindsInTurn[] = {pieces.size(), 8, 5, 5};  // anything, plain keys, few separators
    std::mt19937 random(20);
    for (int round = 0; round < 200'000; ++round) {
        std::string key;
        for (std::size_t rest = random() % (round % 49 == 0 ? 80 : 12); rest > 0; --rest)
            key += pieces[random() % kindsInTurn[round % 4]];
        // In memory of its own size, so that a sanitizer sees what is read beyond.
        const std::vector<char> bytes(key.begin(), key.end());
        const std::string_view string(bytes.begin(), bytes.end());
        const auto expected = camelized(key);
        ASSERT_EQ(camelizationEnds(string), expected.has_value()) << '"' << key << '"';
        if (expected) {
            ASSERT_EQ(camelizedString(string), *expected) << '"' << key << '"';
        }
    }
}

TEST(CamelizationDeathTests, EndlessConversionTerminatesTheProcess) {
    for (const std::string& key : {"_"s, "line1"s, "größe"s, std::string(64, 'x') + '_'}) {
        EXPECT_FALSE(camelizationEnds(key)) << key;
        EXPECT_DEATH((void)camelizedString(key), "never ends") << key;  // an exception would be a failure
    }
}

Value JSON(std::string_view text) {
    return NSJSONSerialization::JSONObjectWithData(text);
}

TEST(ScreeningTests, DropsEndlessKeysAtAnyDepthAndSharesTheRest) {
    const Value json =
        JSON(R"({"name": "x", "n_": 1, "tags": ["a", {"line1": [], "ok": null}, [{"_": 0}]], "fine": [1]})");
    const Value screened = withoutEndlessKeys(json);
    EXPECT_EQ(screened, JSON(R"({"name": "x", "tags": ["a", {"ok": null}, [{}]], "fine": [1]})"));
    EXPECT_EQ(screened["fine"].elements().data(), json["fine"].elements().data());
    for (const Value& plain :
         {Value(), Value::null(), Value("name_"), Value(1), Value::array({}), screened}) {
        EXPECT_EQ(withoutEndlessKeys(plain), plain);
        EXPECT_EQ(withoutEndlessKeys(plain).entries().data(), plain.entries().data());
    }
}

TEST(ScreeningTests, NeedsNoStackForDeepValues) {
    Value deep = Value::dictionary({{"name_", 1}});
    for (int level = 0; level < 300'000; ++level)
        deep = level % 2 == 0 ? Value::array({deep}) : Value::dictionary({{"key", deep}});
    Value screened = withoutEndlessKeys(std::move(deep));
    for (int level = 0; level < 300'000; ++level)
        screened = level % 2 == 0 ? screened["key"] : screened[0];
    EXPECT_EQ(screened, Value::dictionary({}));
}

}  // namespace
}  // namespace zembra
