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
    // U+10FFFF, then above it, overlong forms, a surrogate, a lone byte, cut short, no UTF-8.
    for (const std::string text : {"", "abc", "größe", "€", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(isWellFormedUTF8(text) && stringWithUTF8String(text) == text) << text;
    for (const char* text : {"\xF4\x90\x80\x80", "\xC0\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                             "\xED\xA0\x80", "\x80", "a\xE2\x82", "\xFFz"}) {
        EXPECT_FALSE(isWellFormedUTF8(text) || stringWithUTF8String(text)) << text;
        EXPECT_EQ(lengthOfString(text), std::string_view(text).size()) << text;
    }
    EXPECT_EQ(lengthOfString({"a\0b", 3}), 3u);
    EXPECT_EQ(lengthOfString("größe"), 5u);
    EXPECT_EQ(lengthOfString("€😀"), 3u);
}

TEST(NSError, KeepsAbsentAndEmptyUserInformationApart) {
    EXPECT_TRUE(NSError("d", 1).userInfo().isNothing());
    EXPECT_TRUE(NSError("d", 1, Value::dictionary({})).userInfo().isDictionary());
    EXPECT_TRUE(NSError("d", 1, "text").userInfo().isNothing());
}

TEST(NSError, PrintsItselfAndItsCauses) {
    const auto cause =
        NSError::errorWithDomain("cause", 2, Value::dictionary({{NSLocalizedDescriptionKey, "It broke."}}));
    const NSError error("outer", 1,
                        Value::dictionary({{NSLocalizedDescriptionKey, ""}, {NSUnderlyingErrorKey, cause}}));
    EXPECT_THAT(error.localizedDescription(), HasSubstr("outer"));
    std::ostringstream chain;
    chain << error << NSError("some domain", -3);
    EXPECT_THAT(chain.str(), HasSubstr("caused by cause 2 \"It broke.\""));
    EXPECT_THAT(chain.str(), HasSubstr("some domain -3"));
    EXPECT_EQ(error.className(), "NSError");
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
