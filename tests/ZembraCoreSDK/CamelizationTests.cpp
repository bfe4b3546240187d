#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
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

/// A copy in memory of its own size, so that a sanitizer sees what is read beyond.
class Exactly {
public:
    explicit Exactly(const std::string& text) : bytes_(new char[text.size()]), size_(text.size()) {
        std::ranges::copy(text, bytes_.get());
    }
    operator std::string_view() const { return {bytes_.get(), size_}; }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_;
};

TEST(CamelizationTests, FollowsTheByteRule) {
    // Of two separators the first is dropped and the second kept; a third starts anew. Digits are separators
    // too.
    std::istringstream examples(
        "id id|ABC ABC|account_id accountId|ABC_def ABCDef|a_B aB|_id Id|__id _id|user__name user_name|"
        "user___name user_Name|user__ user_|foo-bar fooBar|a@b[c`d{e aBCDE|a_1 a1|a1b2c aBC|video_720p "
        "video70p|"
        "address_line1_text addressLine_text|");
    for (std::string key, name; std::getline(examples, key, ' ') && std::getline(examples, name, '|');)
        EXPECT_EQ(camelizedString(key), name);
    EXPECT_EQ(camelizedString(""), "");
    EXPECT_EQ(camelizedString("foo bar"), "fooBar");

    // A zero byte that is kept ends the result before anything else is judged; one that is dropped does not.
    EXPECT_EQ(camelizedString("a_\0b"s), "a");
    EXPECT_EQ(camelizedString("a_\0_ézz"s), "a");
    EXPECT_EQ(camelizedString("a\0b"s), "aB");
    // Of other characters only as many bytes are read as there are UTF-16 units.
    EXPECT_EQ(camelizedString("_€éabc"), "\xE2\xAC\xA9");
    for (const char* nothing : {"cafés", "xÃ©yz", "€_", "_€😀abcd", "\xC3", "name\xE9_"}) {
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

/// The rule, step by step: what is written, or `std::nullopt` where the conversion goes on for ever.
std::optional<std::string> written(std::string_view s, std::size_t n) {
    const auto isLetter = [](char c) { return IsUppercase(c) || IsLowercase(c); };
    std::string out;
    for (std::size_t i = 0; i < n; ++i) {
        if (isLetter(s[i])) {
            out += s[i];
        } else if (++i < n) {
            out += IsLowercase(s[i]) ? static_cast<char>(s[i] - 32) : s[i];
        } else {
            return std::nullopt;
        }
    }
    return out.c_str();
}

TEST(CamelizationTests, AgreesWithThePlainRuleOnRandomStrings) {
    const std::vector<std::string> pieces{"a", "z",   "Q", "word", "_", "_",   "-",
                                          "1", "\0"s, "é", "€",    "😀", "\x80"};
    const std::size_t kindsInTurn[] = {pieces.size(), 8, 5, 5};  // anything, plain keys, few separators
    std::mt19937 random(20);
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    int ended = 0, endless = 0;
    for (int round = 0; round < 200'000; ++round) {
        const std::size_t kinds = kindsInTurn[round % 4];
        std::string key;
        for (std::size_t rest = below(round % 49 == 0 ? 80 : 12); rest > 0; --rest)
            key += pieces[below(kinds)];
        const Exactly string(key);
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
    EXPECT_GT(endless, 30'000);
}

void camelizeWithTerminateHandler(const std::string& key) {
    std::set_terminate([] {
        std::fputs("the host's handler", stderr);
        std::_Exit(3);
    });
    (void)camelizedString(Exactly(key));
}

TEST(CamelizationDeathTests, EndlessConversionTerminatesTheProcess) {
    for (const std::string& key : {"_"s, "line1"s, "a__b_"s, "größe"s, "aé"s, std::string(63, 'x') + '_',
                                   std::string(64, 'x') + '_', std::string(100'000, '1') + '_', "\0"s}) {
        EXPECT_FALSE(camelizationEnds(key)) << key;
        EXPECT_EXIT(camelizeWithTerminateHandler(key), testing::ExitedWithCode(3), "the host's handler")
            << key;
    }
}

TEST(ScreeningTests, DropsEndlessKeysAtAnyDepth) {
    const auto JSON = [](std::string_view text) { return NSJSONSerialization::JSONObjectWithData(text); };
    const Value json =
        JSON(R"({"name": "x", "name_": 1, "tags": ["a", {"line1": [], "ok": null}, [{"_": 0}]]})");
    EXPECT_EQ(withoutEndlessKeys(json), JSON(R"({"name": "x", "tags": ["a", {"ok": null}, [{}]]})"));
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
