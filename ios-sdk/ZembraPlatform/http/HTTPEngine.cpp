#include "http/HTTPEngine.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <new>
#include <type_traits>
#include <utility>

#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ZembraPlatform/NSJSONSerialization.h>

#include "http/TrustedCertificates.h"

namespace zembra {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLargestBody = std::size_t{16} << 20;
constexpr std::size_t kLargestHeader = std::size_t{256} << 10;

/// So many requests of a client are under way at once, each on a connection of its own; the others wait in
/// line, where they do not age.
constexpr std::size_t kMostConnections = 8;
constexpr long kLongestConnectionLife = 300;  // seconds

/// The end of a request whose bytes keep trickling: so many times its timeout, and at least a minute.
constexpr int kLongestExchangeInTimeouts = 10;
constexpr milliseconds kShortestBackstop = std::chrono::minutes(1);

/// The longest single wait; poll's own limit is not far beyond.
constexpr milliseconds kLongestWait = std::chrono::hours(24);

using namespace std::string_view_literals;

bool isControl(char c) noexcept {
    return (c >= '\0' && c < ' ') || c == '\x7F';
}

/// A field name as an error text can carry it.
[[gnu::cold]] std::string printable(std::string_view name) {
    constexpr std::size_t kLongest = 64;
    std::string text(name.substr(0, kLongest));
    for (char& c : text) {
        if (isControl(c)) c = '?';
    }
    return text;
}

/// What a field name may hold: the token characters of RFC 9110.
constexpr auto kInNames = [] {
    std::array<bool, 256> inNames{};
    for (char c = '!'; c <= '~'; ++c)
        inNames[static_cast<unsigned char>(c)] = "\"(),/:;<=>?@[\\]{}"sv.find(c) == std::string_view::npos;
    return inNames;
}();

/// The error of a request with the field, `nullptr` where it can be sent.
[[gnu::cold]] NSErrorPtr fieldError(const std::string& name, const std::string& value) {
    const auto isInNames = [](char c) { return kInNames[static_cast<unsigned char>(c)]; };
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

/// Sets options until one fails, and remembers that.
class Options {
public:
    explicit Options(CURL* easy) : easy_(easy) {}

    template <class Option>
    Options& set(CURLoption name, Option value) {
        // libcurl reads its numbers as `long` or `curl_off_t`; an `int` here would be read beyond its end.
        static_assert(!std::is_integral_v<Option> || sizeof(Option) == sizeof(long));
        if (result_ == CURLE_OK) result_ = ::curl_easy_setopt(easy_, name, value);
        return *this;
    }

    [[nodiscard]] CURLcode result() const noexcept { return result_; }

private:
    CURL* const easy_;
    CURLcode result_ = CURLE_OK;
};

/// Sets close-on-exec on the pair of sockets that comes with a multi handle: libcurl leaves it out and tells
/// nobody their numbers. They are the two Unix sockets whose fill grows with each of two wake-ups.
[[gnu::cold]] void setCloseOnExec(CURLM* multi) {
    struct Socket {
        int descriptor;
        int filled[3];
    };
    const auto fill = [](int descriptor) {
        int incoming = -1;
        int outgoing = -1;
        ::ioctl(descriptor, SIOCINQ, &incoming);
        ::ioctl(descriptor, SIOCOUTQ, &outgoing);
        return std::max(incoming, outgoing);
    };
    std::vector<Socket> sockets;
    DIR* const directory = ::opendir("/proc/self/fd");
    if (!directory) return;
    while (const dirent* entry = ::readdir(directory)) {
        const int descriptor = std::atoi(entry->d_name);
        int domain = 0;
        socklen_t size = sizeof domain;
        if (::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX)
            sockets.push_back({descriptor, {fill(descriptor), 0, 0}});
    }
    ::closedir(directory);
    for (const int round : {1, 2}) {
        ::curl_multi_wakeup(multi);
        for (Socket& socket : sockets)
            socket.filled[round] = fill(socket.descriptor);
    }
    ::curl_multi_poll(multi, nullptr, 0, 0, nullptr);  // takes the wake-ups back
    for (const auto& [descriptor, filled] : sockets) {
        if (filled[0] == 0 && filled[1] > 0 && filled[2] > filled[1])
            ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    }
}

}  // namespace

NSErrorPtr networkError(NSURLErrorCode code, std::string_view text) {
    return NSError::errorWithDomain(NSURLErrorDomain, code,
                                    Value::dictionary({{NSLocalizedDescriptionKey, text}}));
}

// What requests are made of
// -------------------------------------------------------------------------------------------------------

HTTPTarget::HTTPTarget(const std::string& base, std::string_view path)
    : path_(path), parsed_(::curl_url()), url_(NSURL::URLWithString(path_)) {
    const auto part = [&](CURLUPart which) {
        char* text = nullptr;
        if (::curl_url_get(parsed(), which, &text, 0) != CURLUE_OK) return std::string();
        const std::unique_ptr<char, decltype(&::curl_free)> owned(text, &::curl_free);
        return std::string(text);
    };
    constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE | CURLU_DISALLOW_USER;
    const bool isText = std::ranges::none_of(path, isControl) && std::ranges::none_of(base, isControl);
    if (!parsed() || !isText || ::curl_url_set(parsed(), CURLUPART_URL, base.c_str(), kFlags) != CURLUE_OK ||
        ::curl_url_set(parsed(), CURLUPART_URL, path_.c_str(), kFlags) != CURLUE_OK) {
        refusal_ = networkError(NSURLErrorBadURL, "The request was not sent: its URL is not valid.");
        return;
    }
    url_ = NSURL::URLWithString(part(CURLUPART_URL));
    if (part(CURLUPART_SCHEME) != "https") {
        refusal_ =
            networkError(NSURLErrorUnsupportedURL, "The request was not sent: its URL is not an https one.");
        return;
    }
    host_ = part(CURLUPART_HOST);
    if (const std::string port = part(CURLUPART_PORT); !port.empty()) host_ += ':' + port;
}

void HTTPTarget::Deleter::operator()(Curl_URL* url) const noexcept {
    ::curl_url_cleanup(url);
}

HTTPRequestHeader::HTTPRequestHeader(std::shared_ptr<const Fields> fields) : fields_(std::move(fields)) {
    Fields sent = *fields_;
    for (const char* const own : {"Content-Length", "Transfer-Encoding", "Expect"})
        sent.erase(own);
    sent.try_emplace("Content-Type", "application/x-www-form-urlencoded");
    sent.try_emplace("Accept", "application/json");
    append("Expect:");  // without this libcurl waits a second before a large body
    for (const auto& [name, value] : sent) {
        if (!refusal_) refusal_ = fieldError(name, value);
        const bool isBlank = value.find_first_not_of(' ') == std::string::npos;
        append(isBlank ? name + ';' : name + ": " + value);
    }
}

void HTTPRequestHeader::Deleter::operator()(curl_slist* list) const noexcept {
    ::curl_slist_free_all(list);
}

void HTTPRequestHeader::append(const std::string& line) {
    curl_slist* const longer = ::curl_slist_append(lines_.get(), line.c_str());
    if (!longer) throw std::bad_alloc();
    [[maybe_unused]] curl_slist* const shorter = lines_.release();
    lines_.reset(longer);
}

// Transfers: the use of one libcurl handle
// -------------------------------------------------------------------------------------------------------

/// One libcurl handle, used for one exchange after another.
class HTTPEngine::Transfer {
public:
    [[gnu::cold]] Transfer();
    ~Transfer() { ::curl_easy_cleanup(easy_); }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    [[nodiscard]] CURL* easy() const noexcept { return easy_; }
    static Transfer* of(CURL* easy) noexcept;

    /// Takes an exchange and sets the handle up for it. What is not `CURLE_OK` ends the exchange.
    [[nodiscard]] CURLcode prepare(std::shared_ptr<HTTPExchange> exchange);

    /// The end of the exchange, which is given back with its outcome.
    [[nodiscard]] std::shared_ptr<HTTPExchange> finish(CURLcode result);

    /// Gives the exchange up.
    [[nodiscard]] std::shared_ptr<HTTPExchange> takeExchange() noexcept { return std::move(exchange_); }

    /// When the exchange times out unless something moves before; nothing if it does not age.
    [[nodiscard]] std::optional<Clock::time_point> deadline() const;

    /// Ages from the first moment that libcurl waits for something on its behalf.
    void begin();

    /// `socket`, one of its own, is ready: something moved.
    void touch(int socket, Clock::time_point now);

    /// What moved at `moment` has been dealt with only now; that time was this thread's own.
    void restamp(Clock::time_point moment, Clock::time_point now) {
        if (lastMoved_ == moment) lastMoved_ = now;
    }

private:
    static curl_socket_t onOpenSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
    static int onProgress(void* self, curl_off_t, curl_off_t, curl_off_t total, curl_off_t sent);

    void readHeaderLine(std::string_view line);
    [[nodiscard]] bool has(CURLINFO time) const;
    [[nodiscard, gnu::cold]] NSErrorPtr timeoutError() const;
    [[nodiscard, gnu::cold]] NSErrorPtr errorFor(CURLcode result) const;
    [[nodiscard, gnu::cold]] NSErrorPtr certificateError() const;

    CURL* const easy_;
    CURLcode setupResult_ = CURLE_FAILED_INIT;
    char errorText_[CURL_ERROR_SIZE] = {};
    std::shared_ptr<HTTPExchange> exchange_;

    // What the handle is set up with; libcurl keeps its settings from one exchange to the next.
    std::shared_ptr<const HTTPTarget> target_;
    std::shared_ptr<const HTTPRequestHeader> header_;
    std::shared_ptr<const TrustedCertificates> certificates_;

    Clock::time_point began_;
    std::optional<Clock::time_point> lastMoved_;
    bool isConnecting_ = false;  // from the first socket that was opened to the first connection

    // The answer so far
    std::string* lastValue_ = nullptr;  // of its header
    bool isHeaderComplete_ = false;
    bool isTooLarge_ = false;
    std::size_t headerSize_ = 0;
};

HTTPEngine::Transfer::Transfer() : easy_(::curl_easy_init()) {
    if (!easy_) return;
    setupResult_ = Options(easy_)
                       .set(CURLOPT_PRIVATE, static_cast<void*>(this))
                       .set(CURLOPT_ERRORBUFFER, &errorText_[0])
                       .set(CURLOPT_POST, 1L)
                       .set(CURLOPT_PROTOCOLS_STR, "https")
                       .set(CURLOPT_REDIR_PROTOCOLS_STR, "https")
                       .set(CURLOPT_FOLLOWLOCATION, 0L)
                       .set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1})
                       .set(CURLOPT_HTTP09_ALLOWED, 0L)
                       .set(CURLOPT_ACCEPT_ENCODING, "")  // every one that libcurl can decode
                       .set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2})
                       .set(CURLOPT_SSL_VERIFYPEER, 1L)
                       .set(CURLOPT_SSL_VERIFYHOST, 2L)
                       .set(CURLOPT_CAPATH, static_cast<char*>(nullptr))  // with it nothing is cached
                       .set(CURLOPT_NETRC, long{CURL_NETRC_IGNORED})
                       .set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L)
                       .set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
                       .set(CURLOPT_NOSIGNAL, 1L)
                       .set(CURLOPT_QUICK_EXIT, 1L)
                       .set(CURLOPT_TCP_KEEPALIVE, 1L)
                       .set(CURLOPT_MAXLIFETIME_CONN, kLongestConnectionLife)
                       .set(CURLOPT_OPENSOCKETFUNCTION, &onOpenSocket)
                       .set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this))
                       .set(CURLOPT_HEADERFUNCTION, &onHeader)
                       .set(CURLOPT_HEADERDATA, static_cast<void*>(this))
                       .set(CURLOPT_WRITEFUNCTION, &onBody)
                       .set(CURLOPT_WRITEDATA, static_cast<void*>(this))
                       .set(CURLOPT_XFERINFOFUNCTION, &onProgress)
                       .set(CURLOPT_XFERINFODATA, static_cast<void*>(this))
                       .result();
}

HTTPEngine::Transfer* HTTPEngine::Transfer::of(CURL* easy) noexcept {
    char* self = nullptr;
    if (::curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self) != CURLE_OK) return nullptr;
    return static_cast<Transfer*>(static_cast<void*>(self));
}

CURLcode HTTPEngine::Transfer::prepare(std::shared_ptr<HTTPExchange> exchange) {
    exchange_ = std::move(exchange);
    errorText_[0] = '\0';
    lastMoved_.reset();
    isConnecting_ = false;
    lastValue_ = nullptr;
    isHeaderComplete_ = false;
    isTooLarge_ = false;
    headerSize_ = 0;
    if (setupResult_ != CURLE_OK) return setupResult_;

    Options options(easy_);
    if (target_ != exchange_->target) {
        target_ = exchange_->target;
        options.set(CURLOPT_CURLU, target_->parsed());  // a text would be parsed anew for every exchange
    }
    if (header_ != exchange_->header) {
        header_ = exchange_->header;
        options.set(CURLOPT_HTTPHEADER, header_->lines());
    }
    if (certificates_ != exchange_->certificates) {
        certificates_ = exchange_->certificates;
        if (!certificates_->file().empty()) options.set(CURLOPT_CAINFO, certificates_->file().c_str());
    }

    // A limit on connecting as a whole makes libcurl try the next address of a host in time. It is lifted
    // once there is a connection. 0 stands for libcurl's own limit.
    const milliseconds connectLimit = exchange_->idleLimit.value_or(milliseconds{0});
    options.set(CURLOPT_POSTFIELDS, exchange_->body.c_str())
        .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(exchange_->body.size()))
        .set(CURLOPT_NOPROGRESS, exchange_->didSend ? 0L : 1L)
        .set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectLimit.count()));
    if (options.result() != CURLE_OK) {  // the next exchange sets all of it again
        target_ = nullptr;
        header_ = nullptr;
        certificates_ = nullptr;
    }
    return options.result();
}

curl_socket_t HTTPEngine::Transfer::onOpenSocket(void* self, curlsocktype, curl_sockaddr* address) {
    static_cast<Transfer*>(self)->isConnecting_ = true;
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

std::size_t HTTPEngine::Transfer::onHeader(char* data, std::size_t, std::size_t count, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    transfer.headerSize_ += count;
    if (transfer.headerSize_ > kLargestHeader) {
        transfer.isTooLarge_ = true;
        return 0;
    }
    std::string_view line(data, count);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    transfer.readHeaderLine(line);
    return count;
}

void HTTPEngine::Transfer::readHeaderLine(std::string_view line) {
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    const auto trimmed = [&](std::string_view text) {
        while (!text.empty() && isBlank(text.front()))
            text.remove_prefix(1);
        while (!text.empty() && isBlank(text.back()))
            text.remove_suffix(1);
        return text;
    };
    auto& fields = exchange_->fields;
    if (line.starts_with("HTTP/")) {  // also after an interim answer
        fields.clear();
        lastValue_ = nullptr;
        isHeaderComplete_ = false;
    } else if (line.empty()) {
        isHeaderComplete_ = true;
    } else if (isHeaderComplete_) {
        // A trailer; nothing in it concerns the answer's body.
    } else if (isBlank(line.front())) {
        if (lastValue_) lastValue_->append(" ").append(trimmed(line));
    } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
        const std::string_view value = trimmed(line.substr(colon + 1));
        const auto [field, isNew] = fields.try_emplace(std::string(trimmed(line.substr(0, colon))), value);
        if (!isNew) field->second.append(", ").append(value);
        lastValue_ = &field->second;
    }
}

std::size_t HTTPEngine::Transfer::onBody(char* data, std::size_t, std::size_t count, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    std::string& body = transfer.exchange_->answer;
    if (count > kLargestBody - body.size()) {
        transfer.isTooLarge_ = true;
        return 0;
    }
    if (body.empty()) {
        curl_off_t length = -1;
        ::curl_easy_getinfo(transfer.easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        const auto expected = length > 0 ? static_cast<std::size_t>(length) : count;
        body.reserve(std::min(std::max(expected, count), kLargestBody) +
                     NSJSONSerialization::spareCapacity);  // so it can be decoded in place
    }
    body.append(data, count);
    return count;
}

int HTTPEngine::Transfer::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t total, curl_off_t sent) {
    static_cast<Transfer*>(self)->exchange_->didSend(sent, total);
    return 0;
}

void HTTPEngine::Transfer::begin() {
    if (lastMoved_) return;
    began_ = Clock::now();
    lastMoved_ = began_;
}

void HTTPEngine::Transfer::touch(int socket, Clock::time_point now) {
    lastMoved_ = now;
    if (!isConnecting_) return;  // a kept connection, or the resolver's
    sockaddr_storage peer;
    socklen_t size = sizeof peer;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.ss_family == AF_UNIX) {
        return;
    }
    isConnecting_ = false;
    ::curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, 0L);
}

auto HTTPEngine::Transfer::deadline() const -> std::optional<Clock::time_point> {
    if (!lastMoved_ || !exchange_->idleLimit) return std::nullopt;
    const milliseconds idleLimit = *exchange_->idleLimit;
    return std::min(*lastMoved_ + idleLimit,
                    began_ + std::max(kShortestBackstop, kLongestExchangeInTimeouts * idleLimit));
}

std::shared_ptr<HTTPExchange> HTTPEngine::Transfer::finish(CURLcode result) {
    long status = 0;
    if (result == CURLE_OK) result = ::curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    if (result != CURLE_OK) exchange_->error = errorFor(result);
    exchange_->status = status;
    return takeExchange();
}

/// Whether the phase that libcurl dates with `time` is over.
bool HTTPEngine::Transfer::has(CURLINFO time) const {
    curl_off_t microseconds = 0;
    return ::curl_easy_getinfo(easy_, time, &microseconds) == CURLE_OK && microseconds > 0;
}

NSErrorPtr HTTPEngine::Transfer::timeoutError() const {
    const char* const phase = headerSize_ > 0                    ? "receiving the answer"
                              : has(CURLINFO_PRETRANSFER_TIME_T) ? "sending or waiting for the answer"
                              : !has(CURLINFO_NAMELOOKUP_TIME_T) ? "looking up the host"
                              : isConnecting_                    ? "connecting"
                                                                 : "negotiating a secure connection";
    return networkError(NSURLErrorTimedOut,
                        "The request to " + exchange_->target->host() + " timed out while " + phase + '.');
}

/// What was wrong with the server's certificate. The numbers are OpenSSL's.
NSErrorPtr HTTPEngine::Transfer::certificateError() const {
    enum : long {
        kNotYetValid = 9,
        kExpired = 10,
        kSelfSigned = 18,
        kSelfSignedRoot = 19,
        kNoIssuer = 20,
        kNoChain = 21
    };
    long verdict = 0;
    ::curl_easy_getinfo(easy_, CURLINFO_SSL_VERIFYRESULT, &verdict);
    const std::string certificate = "The certificate of " + exchange_->target->host();
    switch (verdict) {
        case kNotYetValid:
            return networkError(NSURLErrorServerCertificateNotYetValid, certificate + " is not yet valid.");
        case kExpired:
            return networkError(NSURLErrorServerCertificateHasBadDate, certificate + " has expired.");
        case kSelfSigned:
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " is self-signed and not trusted.");
        case kSelfSignedRoot:
        case kNoIssuer:
        case kNoChain:
            return networkError(NSURLErrorServerCertificateHasUnknownRoot,
                                certificate + " was issued by an unknown authority (trusted are those in " +
                                    certificates_->origin() + ").");
        default:
            return networkError(NSURLErrorServerCertificateUntrusted,
                                certificate + " cannot be trusted: " + errorText_ + '.');
    }
}

/// The one place that gives libcurl's results their meaning. Its own text is passed on only where it cannot
/// hold anything of the request.
NSErrorPtr HTTPEngine::Transfer::errorFor(CURLcode result) const {
    const std::string& host = exchange_->target->host();
    const std::string detail = errorText_[0] != '\0' ? std::string(" (") + errorText_ + ")." : ".";
    switch (result) {
        case CURLE_OPERATION_TIMEDOUT:
            return timeoutError();
        case CURLE_URL_MALFORMAT:
        case CURLE_LOGIN_DENIED:
            return networkError(NSURLErrorBadURL, "The request was not sent: its URL is not valid.");
        case CURLE_COULDNT_RESOLVE_HOST:
            return networkError(NSURLErrorCannotFindHost, "The host " + host + " cannot be found.");
        case CURLE_COULDNT_RESOLVE_PROXY:
            return networkError(NSURLErrorCannotFindHost,
                                "The proxy on the way to " + host + " cannot be found.");
        case CURLE_PROXY:
            return networkError(NSURLErrorCannotConnectToHost,
                                "The proxy refused to connect to " + host + '.');
        case CURLE_COULDNT_CONNECT:
            return networkError(NSURLErrorCannotConnectToHost, "Cannot connect to " + host + detail);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return networkError(NSURLErrorNetworkConnectionLost,
                                "The connection to " + host + " was lost" + detail);
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_ISSUER_ERROR:
            return certificateError();
        case CURLE_SSL_CERTPROBLEM:
            return networkError(NSURLErrorClientCertificateRejected,
                                host + " asks for a client certificate" + detail);
        case CURLE_SSL_CACERT_BADFILE:
            return networkError(NSURLErrorSecureConnectionFailed,
                                "The trusted certificate authorities cannot be read from " +
                                    certificates_->origin() + detail);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CIPHER:
        case CURLE_USE_SSL_FAILED:
            return networkError(NSURLErrorSecureConnectionFailed,
                                "No secure connection to " + host + " could be made" + detail);
        case CURLE_BAD_CONTENT_ENCODING:
            return networkError(NSURLErrorCannotDecodeContentData,
                                "The compressed answer of " + host + " cannot be read.");
        case CURLE_WRITE_ERROR:
        case CURLE_OUT_OF_MEMORY:  // which is also how libcurl puts a single header line that is too long
        case CURLE_FILESIZE_EXCEEDED:
            if (isTooLarge_ || headerSize_ > 0)
                return networkError(NSURLErrorDataLengthExceedsMaximum,
                                    "The answer of " + host + " is too large.");
            break;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line: only https is ever asked for
        case CURLE_HTTP2:
            return networkError(NSURLErrorBadServerResponse, "The answer of " + host + " is not valid HTTP.");
        default:
            break;
    }
    return networkError(NSURLErrorUnknown,
                        "The request to " + host + " failed: " + ::curl_easy_strerror(result) + '.');
}

// Driving the transfers
// -------------------------------------------------------------------------------------------------------

bool HTTPEngine::prepareProcess() {
    return ::curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
}

std::string HTTPEngine::systemCertificateFile() {
    const char* const file = ::curl_version_info(CURLVERSION_NOW)->cainfo;
    return file ? file : "";
}

HTTPEngine::HTTPEngine(int wakeDescriptor)
    : multi_(::curl_multi_init()), sockets_{{wakeDescriptor, POLLIN, 0}}, transfers_{nullptr} {
    if (!multi_) return;
    setCloseOnExec(multi_);
    const auto set = [this](CURLMoption name, auto value) {
        return ::curl_multi_setopt(multi_, name, value) == CURLM_OK;
    };
    isReady_ = set(CURLMOPT_SOCKETFUNCTION, &onSocket) && set(CURLMOPT_SOCKETDATA, this) &&
               set(CURLMOPT_TIMERFUNCTION, &onTimer) && set(CURLMOPT_TIMERDATA, this) &&
               set(CURLMOPT_MAXCONNECTS, static_cast<long>(kMostConnections));
}

HTTPEngine::~HTTPEngine() {
    spare_.clear();
    ::curl_multi_cleanup(multi_);
}

void HTTPEngine::start() {
    while (!waiting_.empty() && active_.size() < kMostConnections) {
        std::shared_ptr<HTTPExchange> exchange = std::move(waiting_.front());
        waiting_.pop_front();
        if (spare_.empty()) spare_.push_back(std::make_unique<Transfer>());
        active_.push_back(std::move(spare_.back()));
        spare_.pop_back();
        Transfer& transfer = *active_.back();
        CURLcode result = transfer.prepare(std::move(exchange));
        if (result == CURLE_OK && (!isReady_ || ::curl_multi_add_handle(multi_, transfer.easy()) != CURLM_OK))
            result = CURLE_FAILED_INIT;
        if (result == CURLE_OK) continue;
        remove(transfer);
        ended_.push_back(transfer.finish(result));
    }
}

bool HTTPEngine::isIdle() const noexcept {
    return waiting_.empty() && active_.empty() && sockets_.size() == 1 && !timer_;
}

bool HTTPEngine::turn(HTTPExchanges& ended) {
    start();
    runTimer();
    const bool isWoken = wait();
    runTimer();
    // What moves while this thread is busy, such as reading the authorities, is seen at its next look.
    for (std::size_t index = active_.size(); index-- > 0;) {
        Transfer& transfer = *active_[index];
        const auto deadline = transfer.deadline();
        if (!deadline || *deadline > looked_) continue;
        remove(transfer);
        ended_.push_back(transfer.finish(CURLE_OPERATION_TIMEDOUT));
    }
    ended.swap(ended_);
    ended_.clear();
    return isWoken;
}

void HTTPEngine::runTimer() {
    if (!timer_ || *timer_ > Clock::now()) return;
    timer_.reset();
    int running = 0;
    ::curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
    collect();
}

bool HTTPEngine::wait() {
    std::optional<Clock::time_point> end = timer_;
    for (const auto& transfer : active_) {
        const auto deadline = transfer->deadline();
        if (deadline && (!end || *deadline < *end)) end = deadline;
    }
    if (!ended_.empty()) end = Clock::time_point::min();
    int timeout = -1;
    if (end) {
        const auto left = std::chrono::ceil<milliseconds>(*end - std::min(*end, Clock::now()));
        timeout = static_cast<int>(std::min<milliseconds>(left, kLongestWait).count());
    }
    const int count = ::poll(sockets_.data(), static_cast<nfds_t>(sockets_.size()), timeout);
    looked_ = Clock::now();
    if (count <= 0) return false;
    ready_.clear();
    for (std::size_t index = 1; index < sockets_.size(); ++index) {
        if (sockets_[index].revents == 0) continue;
        ready_.push_back(sockets_[index]);
        if (transfers_[index]) transfers_[index]->touch(sockets_[index].fd, looked_);
    }
    const bool isWoken = sockets_[0].revents != 0;
    for (const pollfd& socket : ready_) {  // the calls below change `sockets_`
        const int events = ((socket.revents & (POLLIN | POLLHUP | POLLERR)) != 0 ? CURL_CSELECT_IN : 0) |
                           ((socket.revents & POLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                           ((socket.revents & (POLLERR | POLLNVAL)) != 0 ? CURL_CSELECT_ERR : 0);
        int running = 0;
        ::curl_multi_socket_action(multi_, socket.fd, events, &running);
    }
    const Clock::time_point now = Clock::now();
    for (const auto& transfer : active_)
        transfer->restamp(looked_, now);
    if (!ready_.empty()) collect();
    return isWoken;
}

void HTTPEngine::collect() {
    int left = 0;
    while (const CURLMsg* message = ::curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode result = message->data.result;  // gone with the handle
        if (Transfer* transfer = Transfer::of(message->easy_handle)) {
            remove(*transfer);
            ended_.push_back(transfer->finish(result));
        }
    }
}

/// Puts a transfer among the spare ones, from where its exchange can be taken.
void HTTPEngine::remove(Transfer& transfer) {
    ::curl_multi_remove_handle(multi_, transfer.easy());
    const auto found = std::ranges::find(active_, &transfer, &std::unique_ptr<Transfer>::get);
    spare_.push_back(std::move(*found));
    active_.erase(found);
}

HTTPExchanges HTTPEngine::takeAll() {
    HTTPExchanges exchanges;
    while (!active_.empty()) {
        Transfer& transfer = *active_.back();
        remove(transfer);
        exchanges.push_back(transfer.takeExchange());
    }
    std::ranges::move(std::exchange(waiting_, {}), std::back_inserter(exchanges));
    return exchanges;
}

int HTTPEngine::onSocket(void* easy, int socket, int interest, void* self, void*) {
    static_cast<HTTPEngine*>(self)->watch(socket, interest, Transfer::of(easy));
    return 0;
}

void HTTPEngine::watch(int socket, int interest, Transfer* transfer) {
    const auto found = std::ranges::find(sockets_.begin() + 1, sockets_.end(), socket, &pollfd::fd);
    const auto index = found - sockets_.begin();
    if (interest == CURL_POLL_REMOVE) {
        if (found == sockets_.end()) return;
        sockets_.erase(found);
        transfers_.erase(transfers_.begin() + index);
        return;
    }
    const auto events = static_cast<short>(((interest & CURL_POLL_IN) != 0 ? POLLIN : 0) |
                                           ((interest & CURL_POLL_OUT) != 0 ? POLLOUT : 0));
    if (transfer) transfer->begin();
    if (found == sockets_.end()) {
        sockets_.push_back({socket, events, 0});
        transfers_.push_back(transfer);
    } else {
        found->events = events;
        transfers_[static_cast<std::size_t>(index)] = transfer;
    }
}

int HTTPEngine::onTimer(void*, long timeout, void* self) {
    auto& timer = static_cast<HTTPEngine*>(self)->timer_;
    timer.reset();
    if (timeout >= 0) timer = Clock::now() + milliseconds(timeout);
    return 0;
}

}  // namespace zembra
