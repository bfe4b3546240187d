#pragma once

// What one exchange sends; made by the HTTP client on the thread of its caller, read by the client's I/O
// thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSURL.h>

#include "http/TrustedCertificates.h"

namespace zembra {

/// A POST: where it goes, its header and body, whom it trusts and how long it may stand still.
struct HTTPRequest {
    /// To `path`, resolved against `base`, with `fields` (but those that are the connection's) and those that
    /// every request has.
    HTTPRequest(const std::string& base, std::string_view path, NSHTTPURLResponse::HeaderFields fields);

    NSURL url;                             ///< The path itself where it cannot be resolved.
    std::string host;                      ///< For people: with the port where the URL names one.
    std::vector<std::string> headerLines;  ///< As libcurl takes them.
    std::string body;
    std::shared_ptr<const TrustedCertificates> authorities;

    /// How long nothing may move; nothing for "no limit".
    std::optional<std::chrono::milliseconds> idleLimit;

    /// Told on the I/O thread how much of the body is sent, if anybody asks for it.
    std::function<void(std::int64_t sent, std::int64_t total)> didSend;

    /// Why it cannot be sent; `nullptr` where it can.
    NSErrorPtr error;

private:
    void resolve(const std::string& base, std::string_view path);
    void addHeaderLines(NSHTTPURLResponse::HeaderFields fields);
};

}  // namespace zembra
