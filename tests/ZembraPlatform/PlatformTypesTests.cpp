#include <cerrno>
#include <cstring>
#include <sstream>
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
    for (const std::string text : {"", "abc", "größe", "€", "\xF4\x8F\xBF\xBF"})
        EXPECT_TRUE(isWellFormedUTF8(text) && stringWithUTF8String(text) == text) << text;
    for (const std::string text : {"\xF4\x90\x80\x80", "\xC0\x80", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                                   "\xED\xA0\x80", "\x80", "a\xE2\x82", "\xFFz"}) {
        EXPECT_FALSE(isWellFormedUTF8(text) || stringWithUTF8String(text)) << text;
        EXPECT_EQ(lengthOfString(text), text.size()) << text;
    }
    EXPECT_EQ(lengthOfString({"a\0größe€😀", 16}), 10u);
}

TEST(NSError, PrintsItsTextsAndItsCauses) {
    const NSErrorPtr bare = NSError::errorWithDomain("a", -2);
    const NSErrorPtr message = NSError::errorWithDomain(
        "b", 0,
        Value::dictionary({{"message", "line\nbreak"}, {"attempt", 2}, {NSUnderlyingErrorKey, bare}}));
    const Value info = Value::dictionary(
        {{"hint", "Mend it."}, {NSLocalizedDescriptionKey, "It broke."}, {NSUnderlyingErrorKey, message}});
    EXPECT_EQ(
        testing::PrintToString(NSError("c", 1, info)),
        R"(c 1 "It broke.", "hint": "Mend it.", caused by b 0, "message": "line\nbreak", caused by a -2)");
    EXPECT_EQ(bare->localizedDescription(), "The operation could not be completed (a, code -2).");
    EXPECT_TRUE(NSError("d", 1, "text").userInfo().isNothing());
    EXPECT_TRUE(NSError("d", 1, Value::dictionary({})).userInfo().isDictionary());
}

/// Strings with the dates that are read, as JSON writes them; empty for none.
using Cases = std::vector<std::pair<std::string, std::string>>;

void expectDates(const NSDateFormatter& formatter, const Cases& cases) {
    for (const auto& [string, date] : cases) {
        const std::optional<Date> made = formatter.dateFromString(string);
        EXPECT_EQ(made ? Value(*made).text() : "", date.empty() ? "" : "\"" + date + "\"") << string;
    }
}

TEST(DateFormatter, ReadsTheUsualFormsOfISO8601AndNoOthers) {
    Cases cases{{"2024-02-29T23:59:07Z", "2024-02-29T23:59:07Z"},
                {"2024-02-29 23:59:07", "2024-02-29T23:59:07Z"},
                {"2024-02-29t23:59z", "2024-02-29T23:59:00Z"},
                {"2024-02-29", "2024-02-29T00:00:00Z"},
                {"2024-02-29T23:59:07.05+01:00", "2024-02-29T22:59:07.050000Z"},
                {"2024-02-29T23:59:07,1234567899-0130", "2024-03-01T01:29:07.123456Z"},
                {"2024-02-29T23:59+14", "2024-02-29T09:59:00Z"},
                {"1969-12-31T23:59:59.9999999", "1969-12-31T23:59:59.999999Z"},
                {"2024-01-01T00:00:00." + std::string(1'000'000, '0'), "2024-01-01T00:00:00Z"},
                {"0000-01-01T00:00:00+23:59", "-0001-12-31T00:01:00Z"},
                {"9999-12-31T24:00:00Z", "+10000-01-01T00:00:00Z"},
                {"2016-12-31T23:59:60Z", "2017-01-01T00:00:00Z"},
                {"2017-01-01T01:59:60.75+02:00", "2017-01-01T00:00:00Z"},
                {"", ""},
                {" 2024-01-01", ""},
                {{"2024-01-01", 11}, ""}};  // the last ends with a zero byte
    std::istringstream noDates(
        "now 2024 2024-02 2024-02-30 2023-02-29 2024-13-01 2024-00-10 2024-01-00 24-01-01 2024-1-01 "
        "+2024-01-01 -024-01-01 2024-01-01Z 2024-01-01T 2024/01/01 2024-01-01X10:00");
    for (std::string date; noDates >> date;)
        cases.emplace_back(date, "");
    std::istringstream noTimes(
        "10 10: 1:00 25:00 24:00:01 24:30 23:60 23:59:61 22:59:60 23:59:60+01:00 24:00:60 10:00:00. 10:00.5 "
        "10:00:00.5x 10:00:-1 10:00+24:00 10:00+99:00 10:00+01:60 10:00+1 10:00+01: 10:00+01:0 10:00+0100Z "
        "10:00ZZ");
    for (std::string time; noTimes >> time;)
        cases.emplace_back("2024-01-01T" + time, "");
    expectDates(*NSDateFormatter::ISO8601Formatter(), cases);
}

TEST(DateFormatter, ReadsAPattern) {
    const std::pair<std::string, Cases> patterns[] = {
        {"%d.%m.%Y %H:%M", {{"29.02.2024 23:59", "2024-02-29T23:59:00Z"}, {"29.02.2024 23:59 ", ""}}},
        {"%d.%m.%Y %H:%M", {{"30.02.2024 23:59", ""}, {"29.02.2024 24:01", ""}, {"29.02.2024", ""}}},
        {"%a, %d %b %Y %T %z", {{"Thu, 29 Feb 2024 23:59:07 +0130", "2024-02-29T22:29:07Z"}}},
        {"%a, %d %b %Y %z", {{"Thu, 29 Feb 2024 +9900", ""}, {"Fri, 29 Feb 2024 +0000", ""}}},
        {"%Y%m%dT%H%M%SZ", {{"20240229T235907.123456Z", "2024-02-29T23:59:07.123456Z"}}},
        {"%Y%m%dT%H%M%SZ", {{"20240229T235907.1234567Z", ""}}},
        {"%F", {{"2024-02-29", "2024-02-29T00:00:00Z"}, {"2024-02-29T10:00Z", ""}}},
        {"%H:%M", {{"10:00", ""}}},
        {"", {{"", ""}, {"2024-02-29", ""}}},
        {"%", {{"%", ""}}},
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
    std::size_t length = buffer.size();
    EXPECT_EQ(sysctl(name, 2, buffer.data(), &length, nullptr, 0), 0);
    EXPECT_EQ(buffer.substr(0, length), machine);
    length = 0;
    EXPECT_EQ(sysctl(name, 2, nullptr, &length, nullptr, 0), 0);
    EXPECT_EQ(length, machine.size());

    buffer = "####";
    length = 2;
    EXPECT_EQ(sysctl(name, 2, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(buffer, machine.substr(0, 2) + "##");
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(sysctl(other, 2, buffer.data(), &length, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(sysctl(name, 2, nullptr, &length, "x", 1), -1);
    EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace zembra
