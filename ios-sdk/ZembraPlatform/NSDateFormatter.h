#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <ZembraPlatform/NSObject.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// Makes dates of strings. What a data object's date formatter hook returns; a host with a form of its own
/// derives a class. Formatters are immutable: any thread, many at once.
class ZEMBRA_EXPORT NSDateFormatter : public NSObject {
public:
    ~NSDateFormatter() override;

    /// The date that `string` stands for. Nothing where it does not have the formatter's form, names a day or
    /// a time that does not exist, or has text left over.
    [[nodiscard]] virtual std::optional<Date> dateFromString(std::string_view string) const = 0;

    /// The usual forms of ISO 8601, as in `2024-02-29T23:59:07.25+01:00`. A blank may stand for the `T`, and
    /// lower case for either letter. The time may be absent (midnight) and so may seconds and a fraction, of
    /// which digits beyond microseconds are cut off. The offset is `Z`, `+hh:mm`, `+hhmm`, `+hh` or the same
    /// with a minus, up to 23:59; without one, and for a day alone, the time is UTC. 24:00 is the end of the
    /// day, and a leap second (23:59:60 UTC, no other) the first moment after it.
    [[nodiscard]] static std::shared_ptr<const NSDateFormatter> ISO8601Formatter();

    /// The form that `pattern` says with the letters of `std::chrono::parse`, for instance
    /// `"%d.%m.%Y %H:%M:%S %z"`. It must name a day; `%S` takes a fraction of up to six digits; without an
    /// offset (`%z`, `%Ez`) the time is UTC. Names of days and months are English. The letter `Z` for UTC is
    /// no offset: it stands as itself in the pattern.
    [[nodiscard]] static std::shared_ptr<const NSDateFormatter> formatterWithPattern(std::string pattern);

protected:
    NSDateFormatter() = default;
};

}  // namespace zembra
