// What one exchange sends: the resolved URL, the header lines, and why a request cannot be sent.

#include "http/HTTPRequest.h"

#include <algorithm>
#include <utility>

#include <curl/curl.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>

#include "http/HTTPFailure.h"

namespace zembra {

namespace {

using namespace std::string_view_literals;

bool isControl(char c) noexcept {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

/// Whether a field name may hold `c`: the token characters of RFC 9110.
bool isInNames(char c) noexcept {
    return c > ' ' && c <= '~' && "\"(),/:;<=>?@[\\]{}"sv.find(c) == std::string_view::npos;
}

/// A field name as an error text can carry it.
std::string printable(std::string_view name) {
    constexpr std::size_t kLongest = 64;
    std::string text(name.substr(0, kLongest));
    std::ranges::replace_if(text, isControl, '?');
    return text;
}

/// Why no request can carry the field; `nullptr` where one can.
NSErrorPtr fieldError(const std::string& name, const std::string& value) {
    const bool isBadName = name.empty() || !std::ranges::all_of(name, isInNames);
    if (!isBadName && std::ranges::none_of(value, isControl)) return nullptr;
    const NSErrorPtr cause = NSError::errorWithDomain(
        AFHTTPSessionErrorDomain, AFHTTPSessionErrorInvalidHeader,
        Value::dictionary(
            {{NSLocalizedDescriptionKey,
              (isBadName ? "The name of the header field \"" : "The value of the header field \"") +
                  printable(name) + "\" holds a character that no header can carry."}}));
    return NSError::errorWithDomain(
        AFHTTPSessionErrorDomain, AFHTTPSessionErrorHeaderRefused,
        Value::dictionary(
            {{NSLocalizedDescriptionKey, "The request was not sent: one of its header fields is not valid."},
             {NSUnderlyingErrorKey, Value(cause)}}));
}

/// A part of a URL; an empty text where it has none.
std::string partOf(CURLU* url, CURLUPart which) {
    char* text = nullptr;
    if (::curl_url_get(url, which, &text, 0) != CURLUE_OK) return {};
    const std::unique_ptr<char, decltype(&::curl_free)> owned(text, &::curl_free);
    return text;
}

}  // namespace

HTTPRequest::HTTPRequest(const std::string& base, std::string_view path,
                         NSHTTPURLResponse::HeaderFields fields)
    : url(NSURL::URLWithString(std::string(path))) {
    resolve(base, path);
    addHeaderLines(std::move(fields));
}

void HTTPRequest::resolve(const std::string& base, std::string_view path) {
    const std::unique_ptr<CURLU, decltype(&::curl_url_cleanup)> parsed(::curl_url(), &::curl_url_cleanup);
    constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE | CURLU_DISALLOW_USER;
    const bool isText = std::ranges::none_of(path, isControl) && std::ranges::none_of(base, isControl);
    if (!parsed || !isText ||
        ::curl_url_set(parsed.get(), CURLUPART_URL, base.c_str(), kFlags) != CURLUE_OK ||
        ::curl_url_set(parsed.get(), CURLUPART_URL, std::string(path).c_str(), kFlags) != CURLUE_OK) {
        error = networkError(NSURLErrorBadURL, "The request was not sent: its URL is not valid.");
        return;
    }
    url = NSURL::URLWithString(partOf(parsed.get(), CURLUPART_URL));
    if (partOf(parsed.get(), CURLUPART_SCHEME) != "https") {
        error =
            networkError(NSURLErrorUnsupportedURL, "The request was not sent: its URL is not an https one.");
        return;
    }
    host = partOf(parsed.get(), CURLUPART_HOST);
    if (const std::string port = partOf(parsed.get(), CURLUPART_PORT); !port.empty()) host += ':' + port;
}

void HTTPRequest::addHeaderLines(NSHTTPURLResponse::HeaderFields fields) {
    for (const char* const own : {"Content-Length", "Transfer-Encoding", "Expect"})
        fields.erase(own);
    fields.try_emplace("Content-Type", "application/x-www-form-urlencoded");
    fields.try_emplace("Accept", "application/json");
    headerLines.emplace_back("Expect:");  // without this libcurl waits a second before a large body
    for (const auto& [name, value] : fields) {
        if (!error) error = fieldError(name, value);
        const bool isBlank = value.find_first_not_of(' ') == std::string::npos;
        headerLines.push_back(isBlank ? name + ';' : name + ": " + value);
    }
}

}  // namespace zembra
