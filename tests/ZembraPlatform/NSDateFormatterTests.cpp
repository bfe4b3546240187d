#include <chrono>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <ZembraPlatform/NSDateFormatter.h>

namespace zembra {
namespace {

struct Case {
    std::string_view string;
    std::string_view date;  // as JSON writes it; empty for nothing
};

void expectDates(const NSDateFormatter& formatter, const std::vector<Case>& cases) {
    for (const auto& [string, date] : cases) {
        const std::optional<Date> made = formatter.dateFromString(string);
        EXPECT_EQ(made ? Value(*made).text() : "", date.empty() ? "" : "\"" + std::string(date) + "\"")
            << string;
    }
}

TEST(NSDateFormatterTests, ReadsTheUsualFormsOfISO8601) {
    expectDates(*NSDateFormatter::ISO8601Formatter(),
                {{"2024-02-29T23:59:07Z", "2024-02-29T23:59:07Z"},
                 {"2024-02-29 23:59:07", "2024-02-29T23:59:07Z"},
                 {"2024-02-29t23:59z", "2024-02-29T23:59:00Z"},
                 {"2024-02-29", "2024-02-29T00:00:00Z"},
                 {"2024-02-29T23:59:07.5+01:00", "2024-02-29T22:59:07.500000Z"},
                 {"2024-02-29T23:59:07,1234567899-0130", "2024-03-01T01:29:07.123456Z"},
                 {"2024-02-29T23:59+14", "2024-02-29T09:59:00Z"},
                 {"1969-12-31T23:59:59.9999999", "1969-12-31T23:59:59.999999Z"},
                 {"0000-01-01T00:00:00+23:59", "-0001-12-31T00:01:00Z"},
                 {"9999-12-31T24:00:00Z", "+10000-01-01T00:00:00Z"},
                 {"2016-12-31T23:59:60Z", "2017-01-01T00:00:00Z"},
                 {"2017-01-01T01:59:60.75+02:00", "2017-01-01T00:00:00Z"}});
}

TEST(NSDateFormatterTests, RefusesWhatIsNoISO8601Date) {
    const auto formatter = NSDateFormatter::ISO8601Formatter();
    std::istringstream dates(
        "now 2024 2024-02 2024-02-30 2023-02-29 2024-13-01 2024-00-10 2024-01-00 24-01-01 "
        "2024-1-01 +2024-01-01 -024-01-01 2024-01-01Z 2024-01-01T 2024/01/01 2024-01-01X10:00");
    for (std::string date; dates >> date;)
        EXPECT_EQ(formatter->dateFromString(date), std::nullopt) << date;
    for (const std::string_view date : {"", " 2024-01-01", "2024-01-01 "})
        EXPECT_EQ(formatter->dateFromString(date), std::nullopt) << date;
    const std::string_view times[] = {
        "10",      "10:",         "1:00",       "25:00",          "24:00:01",    "24:30",
        "23:60",   "23:59:61",    "22:59:60",   "23:59:60+01:00", "24:00:60",    "10:00:00.",
        "10:00.5", "10:00:00.5x", "10:00:-1",   "10:00+24:00",    "10:00+99:00", "10:00+01:60",
        "10:00+1", "10:00+01:",   "10:00+01:0", "10:00+0100Z",    "10:00ZZ",     "10:00Z "};
    for (const std::string_view time : times)
        EXPECT_EQ(formatter->dateFromString("2024-01-01T" + std::string(time)), std::nullopt) << time;
    EXPECT_EQ(formatter->dateFromString({"2024-01-01", 11}), std::nullopt) << "ends with a zero byte";
    EXPECT_TRUE(formatter->dateFromString("2024-01-01T00:00:00." + std::string(1'000'000, '9')));
}

TEST(NSDateFormatterTests, ReadsAPattern) {
    const struct {
        std::string pattern;
        std::vector<Case> cases;
    } patterns[] = {
        {"%d.%m.%Y %H:%M", {{"29.02.2024 23:59", "2024-02-29T23:59:00Z"}, {"29.02.2024 23:59 ", ""}}},
        {"%d.%m.%Y %H:%M",
         {{"30.02.2024 23:59", ""}, {"29.02.2024 24:01", ""}, {"29.02.2024", ""}, {"", ""}}},
        {"%a, %d %b %Y %T %z", {{"Thu, 29 Feb 2024 23:59:07 +0130", "2024-02-29T22:29:07Z"}}},
        {"%a, %d %b %Y %T %z",
         {{"Thu, 29 Feb 2024 23:59:07 +9900", ""}, {"Fri, 29 Feb 2024 23:59:07 +0000", ""}}},
        {"%Y%m%dT%H%M%SZ",
         {{"20240229T235907.123456Z", "2024-02-29T23:59:07.123456Z"}, {"20240229T235907.1234567Z", ""}}},
        {"%F", {{"2024-02-29", "2024-02-29T00:00:00Z"}, {"2024-02-29T10:00Z", ""}}},
        {"%H:%M", {{"10:00", ""}}},
        {"", {{"", ""}, {"2024-02-29", ""}}},
        {"%", {{"%", ""}}},
    };
    for (const auto& [pattern, cases] : patterns)
        expectDates(*NSDateFormatter::formatterWithPattern(pattern), cases);
}

}  // namespace
}  // namespace zembra
