// Strings, errors, dates and the system's name, which need no other part of the platform.

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <ZembraPlatform/NSDateFormatter.h>
#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSString.h>
#include <ZembraPlatform/sysctl.h>

namespace zembra {
namespace {

TEST(NSString, CountsUTF16UnitsAndTellsWellFormedText) {
    // U+10FFFF, then above it, overlong forms, a surrogate, a lone byte, cut short, no UTF-8.
    EXPECT_EQ(stringWithUTF8String("aöࠀ\xF4\x8F\xBF\xBF"), "aöࠀ\xF4\x8F\xBF\xBF");
    for (const std::string text : {"\xF4\x90\x80\x80", "\xC0\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                                   "\xED\xA0\x80", "\x80", "a\xE2\x82", "\xF5\x80\x80\x80"}) {
        EXPECT_EQ(stringWithUTF8String(text), std::nullopt) << text;
        EXPECT_EQ(lengthOfString(text), text.size()) << text;
    }
    EXPECT_EQ(lengthOfString({"a\0größe€😀", 16}), 10u);
}

TEST(NSError, PrintsItsTextsAndItsCauses) {
    const NSErrorPtr bare = NSError::errorWithDomain("a", -2);
    const Value info = Value::dictionary({{"hint", "line\nbreak"},
                                          {NSLocalizedDescriptionKey, "It broke."},
                                          {"attempt", 2},
                                          {NSUnderlyingErrorKey, bare}});
    const NSErrorPtr error = NSError::errorWithDomain("b", 1, info);
    EXPECT_EQ(testing::PrintToString(NSError("c", 0, Value::dictionary({{NSUnderlyingErrorKey, error}}))),
              R"(c 0, caused by b 1 "It broke.", "hint": "line\nbreak", caused by a -2)");
    EXPECT_EQ(bare->localizedDescription(), "The operation could not be completed (a, code -2).");
    EXPECT_TRUE(NSError("d", 1, "text").userInfo().isNothing());
}

/// A string, and the date that is read, as JSON writes it; empty for none.
struct Case {
    std::string string, date = {};
};

void expectDates(const NSDateFormatter& formatter, const std::vector<Case>& cases) {
    for (const auto& [string, date] : cases) {
        const std::optional<Date> made = formatter.dateFromString(string);
        EXPECT_EQ(made ? Value(*made).text() : "\"\"", '"' + date + '"') << string;
    }
}

TEST(DateFormatter, ReadsTheUsualFormsOfISO8601AndNoOthers) {
    expectDates(*NSDateFormatter::ISO8601Formatter(),
                {
                    {"2024-02-29 23:59:07", "2024-02-29T23:59:07Z"},
                    {"2024-02-29t23:59z", "2024-02-29T23:59:00Z"},
                    {"2024-02-29", "2024-02-29T00:00:00Z"},
                    {"2024-02-29T23:59:07.05+01:00", "2024-02-29T22:59:07.050000Z"},
                    {"2024-02-29T23:59:07,1234567899-0130", "2024-03-01T01:29:07.123456Z"},
                    {"0000-01-01T00:00:00+23:59", "-0001-12-31T00:01:00Z"},
                    {"9999-12-31T24:00:00Z", "+10000-01-01T00:00:00Z"},
                    {"2017-01-01T01:59:60.75+02:00", "2017-01-01T00:00:00Z"},
                    {""},
                    {" 2024-01-01"},
                    {{"2024-01-01", 11}},  // the last is a zero byte
                    {"2023-02-29"},
                    {"2024-1-01"},
                    {"2024/01/01"},
                    {"2024-01-01Z"},
                    {"2024-01-01X10:00"},
                    {"2024-01-01T24:00:01"},
                    {"2024-01-01T23:60"},
                    {"2024-01-01T01:59:61+02:00"},
                    {"2024-01-01T22:59:60"},
                    {"2024-01-01T10:00:00."},
                    {"2024-01-01T10:00.5"},
                    {"2024-01-01T10:00+24:00"},
                    {"2024-01-01T10:00+01:60"},
                    {"2024-01-01T10:00ZZ"},
                });
}

TEST(DateFormatter, ReadsAPattern) {
    const std::pair<std::string, std::vector<Case>> patterns[] = {
        {"%d.%m.%Y", {{"29.02.2024", "2024-02-29T00:00:00Z"}, {"29.02.2024 "}, {"30.02.2024"}}},
        {"%a, %d %b %Y %T %z", {{"Thu, 29 Feb 2024 23:59:07 +0130", "2024-02-29T22:29:07Z"}}},
        {"%a, %d %b %Y %z", {{"Thu, 29 Feb 2024 +9900"}}},
        {"", {{""}, {"2024-02-29"}}},
    };
    for (const auto& [pattern, cases] : patterns)
        expectDates(*NSDateFormatter::formatterWithPattern(pattern), cases);
}

TEST(Sysctl, KeepsTheContractOfTheSystemCall) {
    utsname system;
    ASSERT_EQ(uname(&system), 0);
    const std::string machine(system.machine, std::strlen(system.machine) + 1);
    const int name[] = {CTL_HW, HW_MACHINE}, other[] = {CTL_HW, 2};
    std::string buffer(100, '#');
    std::size_t length = 0;
    EXPECT_EQ(sysctl(name, 2, nullptr, &length, nullptr, 0), 0);
    EXPECT_EQ(length, machine.size());
    length = buffer.size();
    EXPECT_EQ(sysctl(name, 2, buffer.data(), &length, nullptr, 0), 0);
    EXPECT_EQ(buffer.substr(0, length), machine);

    buffer = "####";
    length = 2;
    EXPECT_EQ(sysctl(name, 2, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(buffer, machine.substr(0, 2) + "##");
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(sysctl(other, 2, nullptr, &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sysctl(name, 2, nullptr, &length, "x", 1), -1);
    EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace zembra
