#include <array>
#include <cerrno>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSString.h>
#include <ZembraPlatform/NSURL.h>
#include <ZembraPlatform/sysctl.h>

namespace zembra {
namespace {

using ::testing::HasSubstr;

TEST(NSString, CountsUTF16UnitsAndTellsWellFormedText) {
    const struct {
        std::string_view text;
        NSUInteger length;
        bool isWellFormed;
    } cases[] = {
        {"", 0, true},
        {"abc", 3, true},
        {std::string_view("a\0b", 3), 3, true},
        {"größe", 5, true},
        {"€", 1, true},
        {"😀", 2, true},
        {"\xF4\x8F\xBF\xBF", 2, true},   // U+10FFFF
        {"\xF4\x90\x80\x80", 4, false},  // above it
        {"\xC0\x80", 2, false},          // overlong
        {"\xE0\x9F\xBF", 3, false},      // overlong
        {"\xF0\x8F\xBF\xBF", 4, false},  // overlong
        {"\xED\xA0\x80", 3, false},      // a surrogate
        {"\x80", 1, false},
        {"a\xE2\x82", 3, false},  // cut short
        {"\xFFz", 2, false},
    };
    for (const auto& [text, length, isWellFormed] : cases) {
        EXPECT_EQ(lengthOfString(text), length) << text;
        EXPECT_EQ(isWellFormedUTF8(text), isWellFormed) << text;
        EXPECT_EQ(stringWithUTF8String(text).has_value(), isWellFormed) << text;
    }
}

TEST(NSError, KeepsAbsentAndEmptyUserInformationApart) {
    EXPECT_TRUE(NSError("d", 1).userInfo().isNothing());
    EXPECT_TRUE(NSError("d", 1, Value::dictionary({})).userInfo().isDictionary());
    EXPECT_TRUE(NSError("d", 1, "text").userInfo().isNothing());
}

TEST(NSError, PrintsItselfAndItsCauses) {
    std::ostringstream plain;
    plain << NSError("some domain", -3);
    EXPECT_THAT(plain.str(), HasSubstr("some domain -3"));

    const auto cause =
        NSError::errorWithDomain("cause", 2, Value::dictionary({{NSLocalizedDescriptionKey, "It broke."}}));
    const NSError error("outer", 1,
                        Value::dictionary({{NSLocalizedDescriptionKey, ""}, {NSUnderlyingErrorKey, cause}}));
    EXPECT_THAT(error.localizedDescription(), HasSubstr("outer"));
    std::ostringstream chain;
    chain << error;
    EXPECT_THAT(chain.str(), HasSubstr("caused by cause 2 \"It broke.\""));
}

TEST(NSObject, KnowsItsClassName) {
    EXPECT_EQ(NSError("d", 1).className(), "NSError");
    struct Local : NSObject {};
    EXPECT_EQ(Local().className(), "Local");
}

TEST(NSHTTPURLResponse, FindsFieldsWithoutRegardToCase) {
    const NSHTTPURLResponse response(NSURL::URLWithString("https://host/"), 204,
                                     {{"Content-Type", "text/plain"}});
    EXPECT_EQ(response.allHeaderFields().at("content-type"), "text/plain");
    EXPECT_FALSE(response.allHeaderFields().contains("content-typf"));
}

TEST(Sysctl, KeepsTheContractOfTheSystemCall) {
    utsname system;
    ASSERT_EQ(uname(&system), 0);
    const std::string machine = system.machine;
    constexpr std::array<int, 2> kName = {CTL_HW, HW_MACHINE};
    std::array<char, 100> buffer;
    buffer.fill('#');

    std::size_t length = buffer.size();
    EXPECT_EQ(sysctl(kName.data(), 2, buffer.data(), &length, nullptr, 0), 0);
    EXPECT_STREQ(buffer.data(), machine.c_str());
    EXPECT_EQ(length, machine.size() + 1);

    length = 0;
    EXPECT_EQ(sysctl(kName.data(), 2, nullptr, &length, nullptr, 0), 0);
    EXPECT_EQ(length, machine.size() + 1);

    buffer.fill('#');
    length = 2;
    EXPECT_EQ(sysctl(kName.data(), 2, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(buffer[2], '#');

    length = buffer.size();
    constexpr std::array<int, 2> kOther = {CTL_HW, 2};
    EXPECT_EQ(sysctl(kOther.data(), 2, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sysctl(kName.data(), 2, nullptr, &length, "x", 1), -1);
    EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace zembra
