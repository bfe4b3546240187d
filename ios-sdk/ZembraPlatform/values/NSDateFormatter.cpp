// Reads dates in the forms of ISO 8601, or in one that the host states; any thread.

#include <algorithm>
#include <chrono>
#include <concepts>
#include <locale>
#include <sstream>
#include <utility>

#include <date/date.h>

#include <ZembraPlatform/NSDateFormatter.h>

namespace zembra {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::minutes kLargestOffset = 24h - 1min;

/// Reads a string from its front. `hasFailed` says whether something that must be there was missing.
class Reader {
public:
    explicit Reader(std::string_view text) : rest_(text) {}

    [[nodiscard]] bool hasFailed() const { return hasFailed_; }
    [[nodiscard]] bool isAtEnd() const { return rest_.empty(); }

    /// Reads one of `characters`, and says whether there was one; that there is none is no failure.
    bool readOneOf(std::same_as<char> auto... characters) {
        if (rest_.empty() || !((rest_.front() == characters) || ...)) return false;
        rest_.remove_prefix(1);
        return true;
    }

    void read(char character) { hasFailed_ |= !readOneOf(character); }

    /// Exactly `count` digits.
    template <std::size_t count>
    int readDigits() {
        if (rest_.size() < count) {
            hasFailed_ = true;
            return 0;
        }
        int number = 0;
        for (std::size_t index = 0; index < count; ++index) {
            hasFailed_ |= !isDigit(rest_[index]);
            number = 10 * number + (rest_[index] - '0');
        }
        rest_.remove_prefix(count);
        return hasFailed_ ? 0 : number;
    }

    /// One digit or more, as a fraction.
    std::chrono::microseconds readFraction() {
        std::chrono::microseconds fraction(0);
        std::chrono::microseconds unit = 100ms;
        do {
            fraction += readDigits<1>() * unit;
            unit /= 10;
        } while (!isAtEnd() && isDigit(rest_.front()));
        return fraction;
    }

private:
    static bool isDigit(char character) { return character >= '0' && character <= '9'; }

    std::string_view rest_;
    bool hasFailed_ = false;
};

class ISO8601DateFormatter : public NSDateFormatter {
public:
    [[nodiscard]] std::optional<Date> dateFromString(std::string_view string) const override {
        Reader reader(string);
        const std::chrono::year year(reader.readDigits<4>());
        reader.read('-');
        const std::chrono::month month(static_cast<unsigned>(reader.readDigits<2>()));
        reader.read('-');
        const std::chrono::day day(static_cast<unsigned>(reader.readDigits<2>()));
        const std::chrono::year_month_day calendarDay = year / month / day;
        if (reader.hasFailed() || !calendarDay.ok()) return std::nullopt;
        const Date midnight = std::chrono::sys_days(calendarDay);
        if (reader.isAtEnd()) return midnight;

        if (!reader.readOneOf('T', 't', ' ')) return std::nullopt;
        const std::chrono::hours hours(reader.readDigits<2>());
        reader.read(':');
        const std::chrono::minutes minutes(reader.readDigits<2>());
        std::chrono::microseconds seconds(0);
        if (reader.readOneOf(':')) {
            seconds = std::chrono::seconds(reader.readDigits<2>());
            if (reader.readOneOf('.', ',')) seconds += reader.readFraction();
        }
        const std::optional<std::chrono::minutes> offset = readOffset(reader);
        if (reader.hasFailed() || !reader.isAtEnd() || !offset) return std::nullopt;

        const std::chrono::microseconds time = hours + minutes + seconds;
        if (time > 24h || hours > 24h || minutes > 59min || seconds >= 61s) return std::nullopt;
        const Date date = midnight + time - *offset;
        const bool isLeapSecond = seconds >= 60s;
        if (!isLeapSecond) return date;
        const Date nextMinute = std::chrono::floor<std::chrono::minutes>(date);
        if (nextMinute != std::chrono::floor<std::chrono::days>(date)) return std::nullopt;
        return nextMinute;
    }

private:
    static std::optional<std::chrono::minutes> readOffset(Reader& reader) {
        if (reader.isAtEnd() || reader.readOneOf('Z', 'z')) return 0min;
        const bool isNegative = reader.readOneOf('-');
        if (!isNegative) reader.read('+');
        const std::chrono::hours hours(reader.readDigits<2>());
        std::chrono::minutes minutes(0);
        if (!reader.isAtEnd()) {
            reader.readOneOf(':');
            minutes = std::chrono::minutes(reader.readDigits<2>());
        }
        if (minutes > 59min || hours + minutes > kLargestOffset) return std::nullopt;
        return isNegative ? -(hours + minutes) : hours + minutes;
    }
};

class PatternDateFormatter : public NSDateFormatter {
public:
    explicit PatternDateFormatter(std::string pattern) : pattern_(std::move(pattern)) {}

    [[nodiscard]] std::optional<Date> dateFromString(std::string_view string) const override {
        std::istringstream stream{std::string(string)};
        stream.imbue(std::locale::classic());
        Date date;
        std::chrono::minutes offset(0);
        date::from_stream(stream, pattern_.c_str(), date, static_cast<std::string*>(nullptr), &offset);
        const bool isRead = !stream.fail() && stream.peek() == std::istringstream::traits_type::eof();
        return isRead && std::chrono::abs(offset) <= kLargestOffset ? std::optional(date) : std::nullopt;
    }

private:
    const std::string pattern_;
};

}  // namespace

NSDateFormatter::~NSDateFormatter() = default;

std::shared_ptr<const NSDateFormatter> NSDateFormatter::ISO8601Formatter() {
    static const auto& formatter = *new auto(std::make_shared<const ISO8601DateFormatter>());
    return formatter;
}

std::shared_ptr<const NSDateFormatter> NSDateFormatter::formatterWithPattern(std::string pattern) {
    return std::make_shared<const PatternDateFormatter>(std::move(pattern));
}

}  // namespace zembra
