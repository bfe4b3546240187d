// What the HTTP client's requests are built from: timeout, default header fields, forms. Any thread.

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <utility>

#include <sys/utsname.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/NSBundle.h>

namespace zembra {

namespace {

using namespace std::string_view_literals;

constexpr NSTimeInterval kDefaultTimeout{60};

constexpr auto kUnreserved = [] {
    std::array<bool, 256> unreserved{};
    for (const char c : "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~"sv)
        unreserved[static_cast<unsigned char>(c)] = true;
    return unreserved;
}();

bool isUnreserved(char c) noexcept {
    return kUnreserved[static_cast<unsigned char>(c)];
}

void appendPercentEncoded(std::string& text, std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    while (!bytes.empty()) {
        const auto reserved = std::ranges::find_if_not(bytes, isUnreserved);
        const auto count = static_cast<std::size_t>(reserved - bytes.begin());
        text.append(bytes.substr(0, count));
        bytes.remove_prefix(count);
        if (bytes.empty()) return;
        const auto byte = static_cast<unsigned char>(bytes.front());
        text += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
        bytes.remove_prefix(1);
    }
}

/// The host's name and version and the system: "Trail Map/2.1.0 (Linux 6.1.0; x86_64)". What a header cannot
/// carry becomes an underscore.
std::string defaultUserAgent() {
    const auto bundle = NSBundle::mainBundle();
    std::string agent = bundle->objectForInfoDictionaryKey("CFBundleName").text();
    if (agent.empty()) agent = ::program_invocation_short_name;
    std::string version = bundle->objectForInfoDictionaryKey("CFBundleShortVersionString").text();
    if (version.empty()) version = bundle->objectForInfoDictionaryKey("CFBundleVersion").text();
    if (!version.empty()) agent += '/' + version;
    if (utsname system{}; ::uname(&system) == 0) {
        agent += std::string(" (") + system.sysname + ' ' + system.release + "; " + system.machine + ')';
    }
    for (char& c : agent) {
        if (c < ' ' || c > '~') c = '_';
    }
    return agent;
}

}  // namespace

struct ZEMBRA_HIDDEN AFHTTPRequestSerializer::State {
    using Fields = NSHTTPURLResponse::HeaderFields;

    mutable std::mutex mutex;
    NSTimeInterval timeoutInterval = kDefaultTimeout;
    Fields fields = {{"User-Agent", defaultUserAgent()}};
};

AFHTTPRequestSerializer::AFHTTPRequestSerializer() : state_(std::make_unique<State>()) {}

AFHTTPRequestSerializer::~AFHTTPRequestSerializer() = default;

void AFHTTPRequestSerializer::setTimeoutInterval(NSTimeInterval interval) {
    const std::lock_guard lock(state_->mutex);
    state_->timeoutInterval = interval;
}

NSTimeInterval AFHTTPRequestSerializer::timeoutInterval() const {
    const std::lock_guard lock(state_->mutex);
    return state_->timeoutInterval;
}

void AFHTTPRequestSerializer::setValue(std::optional<std::string> value, std::string_view field) {
    const std::lock_guard lock(state_->mutex);
    auto& fields = state_->fields;
    if (value)
        fields.insert_or_assign(std::string(field), std::move(*value));
    else if (const auto found = fields.find(field); found != fields.end())
        fields.erase(found);
}

std::optional<std::string> AFHTTPRequestSerializer::valueForHTTPHeaderField(std::string_view field) const {
    const std::lock_guard lock(state_->mutex);
    const auto found = state_->fields.find(field);
    if (found == state_->fields.end()) return std::nullopt;
    return found->second;
}

NSHTTPURLResponse::HeaderFields AFHTTPRequestSerializer::HTTPRequestHeaders() const {
    const std::lock_guard lock(state_->mutex);
    return state_->fields;
}

std::string AFHTTPRequestSerializer::formWithParameters(const Value& parameters) {
    std::string form;
    for (const auto& [key, value] : parameters.entries()) {
        if (!form.empty()) form += '&';
        appendPercentEncoded(form, key.text());
        form += '=';
        appendPercentEncoded(form, value.text());
    }
    return form;
}

}  // namespace zembra
