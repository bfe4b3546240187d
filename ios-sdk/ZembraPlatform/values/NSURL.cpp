// Answers and the domains of network errors, as the HTTP client hands them out; any thread.

#include <algorithm>

#include <ZembraPlatform/NSURL.h>

namespace zembra {

extern "C" {
const char NSURLErrorDomain[] = "NSURLErrorDomain";
const char kCFErrorDomainCFNetwork[] = "kCFErrorDomainCFNetwork";
}

bool NSHTTPURLResponse::FieldNameLess::operator()(std::string_view a, std::string_view b) const noexcept {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return lower(a[i]) < lower(b[i]);
    }
    return a.size() < b.size();
}

NSHTTPURLResponse::NSHTTPURLResponse(NSURL url, NSInteger statusCode, HeaderFields headerFields)
    : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {}

NSHTTPURLResponse::~NSHTTPURLResponse() = default;

template std::shared_ptr<NSHTTPURLResponse> Value::as<NSHTTPURLResponse>() const;

}  // namespace zembra
