#pragma once

// Judges the header lines of an answer as they come; used by a transfer, on the I/O thread.

#include <cstdint>
#include <optional>
#include <string_view>

namespace zembra {

/// Whether it is beyond doubt where an answer's header and body end. libcurl reads more forms than these,
/// each of which another reader of the same bytes may understand otherwise.
class HTTPFraming {
public:
    /// Takes the next line, as it was received. False where it makes the answer no valid HTTP: a status line
    /// other than `HTTP/1.`, a digit and a status of three digits; a length that is no number below 2^63 or
    /// differs from one before; a transfer encoding other than one `chunked`; a field without a name or with
    /// a blank in it; a carriage return or a zero byte inside the line; a folded line with nothing to
    /// continue.
    [[nodiscard]] bool takeLine(std::string_view line);

    /// Whether the blank line after the header came.
    [[nodiscard]] bool hasWholeHeader() const noexcept { return hasWholeHeader_; }

    /// Whether nothing but the end of the connection says where the body ends.
    [[nodiscard]] bool endsWithConnection() const noexcept;

private:
    [[nodiscard]] bool takeStatusLine(std::string_view line);
    [[nodiscard]] bool takeField(std::string_view name, std::string_view value);

    bool expectsStatus_ = true;
    bool hasWholeHeader_ = false;
    bool canBeFolded_ = false;  // the line before is a field whose value may go on
    int status_ = 0;
    std::optional<std::uint64_t> length_;
    bool isChunked_ = false;
};

}  // namespace zembra
