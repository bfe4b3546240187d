#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "TrustedCertificates.h"

namespace zembra {

extern "C" {
const char AFNetworkingOperationFailingURLResponseErrorKey[] = "AFNetworkingOperationFailingURLResponseError";
const char AFHTTPSessionErrorDomain[] = "AFHTTPSessionErrorDomain";
}

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Success = AFHTTPSessionManager::Success;
using Failure = AFHTTPSessionManager::Failure;
using Progress = AFHTTPSessionManager::Progress;
using CompletionQueue = AFHTTPSessionManager::CompletionQueue;
using HeaderFields = NSHTTPURLResponse::HeaderFields;

constexpr std::size_t kLargestBody = std::size_t{16} << 20;
constexpr std::size_t kLargestHeader = std::size_t{256} << 10;

/// So many requests of a client are under way at once, each on a connection of its own; the others wait in
/// line, where they do not age.
constexpr std::size_t kMostConnections = 8;
constexpr long kLongestConnectionLife = 300;  // seconds

/// The end of a request whose bytes keep trickling: so many times its timeout, and at least a minute.
constexpr int kLongestExchangeInTimeouts = 10;
constexpr milliseconds kShortestBackstop = std::chrono::minutes(1);

/// What a timeout beyond this says is "no limit".
constexpr NSTimeInterval kLongestTimeout = std::chrono::hours(24);

/// The longest single wait; poll's own limit is not far beyond.
constexpr milliseconds kLongestWait = std::chrono::hours(24);

/// How long leaving the process waits for an I/O thread that is inside a callback of the host's.
constexpr std::chrono::seconds kLongestExit{1};
constexpr milliseconds kExitCheck{10};

/// Room behind a body that lets the JSON decoder read it in place.
constexpr std::size_t kBodyPadding = 64;

/// Set when leaving the process has waited long enough for I/O threads that are inside a callback of the
/// host's. One that comes back from there must not go on, since libcurl may be gone.
std::atomic<bool> isProcessOver = false;

/// On an I/O thread: where it tells that it is inside a callback, or stays there for good.
thread_local std::atomic<bool>* isInCallback = nullptr;

// Errors
// -------------------------------------------------------------------------------------------------------

NSErrorPtr networkError(NSURLErrorCode code, std::string_view text) {
    return NSError::errorWithDomain(NSURLErrorDomain, code,
                                    Value::dictionary({{NSLocalizedDescriptionKey, text}}));
}

bool isControl(char c) noexcept {
    return (c >= '\0' && c < ' ') || c == '\x7F';
}

/// A field name as an error text can carry it.
std::string printable(std::string_view name) {
    constexpr std::size_t kLongest = 64;
    std::string text(name.substr(0, kLongest));
    for (char& c : text) {
        if (isControl(c)) c = '?';
    }
    return text;
}

/// The error of a request with a field that cannot be sent, `nullptr` where all can.
NSErrorPtr headerError(const HeaderFields& fields) {
    static constexpr std::string_view kNotInNames = " \"(),/:;<=>?@[\\]{}";
    const auto isBadInName = [](char c) {
        return isControl(c) || c < 0 || kNotInNames.find(c) != std::string_view::npos;
    };
    for (const auto& [name, value] : fields) {
        const bool isBadName = name.empty() || std::ranges::any_of(name, isBadInName);
        if (!isBadName && std::ranges::none_of(value, isControl)) continue;
        const NSErrorPtr cause = NSError::errorWithDomain(
            AFHTTPSessionErrorDomain, AFHTTPSessionErrorInvalidHeader,
            Value::dictionary(
                {{NSLocalizedDescriptionKey,
                  (isBadName ? "The name of the header field \"" : "The value of the header field \"") +
                      printable(name) + "\" holds a character that no header can carry."}}));
        return NSError::errorWithDomain(
            AFHTTPSessionErrorDomain, AFHTTPSessionErrorHeaderRefused,
            Value::dictionary({{NSLocalizedDescriptionKey,
                                "The request was not sent: one of its header fields is not valid."},
                               {NSUnderlyingErrorKey, Value(cause)}}));
    }
    return nullptr;
}

// Requests
// -------------------------------------------------------------------------------------------------------

/// Whom to tell about a request. Shared by the I/O thread and the completion queue.
struct Listener {
    AFHTTPSessionManager::Task task;
    CompletionQueue queue;
    Progress progress;
    Success success;
    Failure failure;

    /// The state of the upload, of which at most one report waits on the queue.
    std::atomic<std::int64_t> bytesSent = 0;
    std::atomic<bool> isReportWaiting = false;
};

void enqueue(const CompletionQueue& queue, std::function<void()> task) {
    if (!queue) return MainQueue::shared().post(std::move(task));
    if (!isInCallback) return queue(std::move(task));
    *isInCallback = true;
    queue(std::move(task));
    *isInCallback = false;
    if (!isProcessOver) return;
    *isInCallback = true;
    while (true)
        ::pause();
}

/// Delivers the one result of a request: an error, or else the decoded answer.
void deliver(std::shared_ptr<Listener> listener, Value object, NSErrorPtr error) {
    const CompletionQueue queue = std::move(listener->queue);
    enqueue(queue, [listener = std::move(listener), object = std::move(object), error = std::move(error)] {
        if (!error) {
            if (listener->success) listener->success(listener->task, object);
        } else if (listener->failure) {
            listener->failure(listener->task, error);
        }
    });
}

/// Where requests to a path go.
struct Target {
    std::string path;
    NSURL url;           // the path itself where there is none
    std::string host;    // with the port where the URL names one
    NSErrorPtr refusal;  // where nothing can be sent there
};

/// A request as `POST` built it.
struct Exchange {
    std::shared_ptr<Listener> listener;
    std::shared_ptr<const Target> target;
    std::string body;
    HeaderFields fields;
    std::optional<milliseconds> idleLimit;
    std::shared_ptr<const TrustedCertificates> certificates;
    NSErrorPtr refusal;  // a fault found while it was built: nothing is sent
};

/// How long nothing may move, rounded up to the millisecond; nothing for "no limit".
std::optional<milliseconds> idleLimitOf(NSTimeInterval interval) {
    if (!(interval.count() > 0) || interval > kLongestTimeout) return std::nullopt;
    return std::chrono::ceil<milliseconds>(interval);
}

/// Resolves `path` against `base`.
std::shared_ptr<const Target> resolve(const std::string& base, std::string_view path) {
    struct Deleter {
        void operator()(CURLU* url) const noexcept { ::curl_url_cleanup(url); }
        void operator()(char* text) const noexcept { ::curl_free(text); }
    };
    const std::unique_ptr<CURLU, Deleter> url(::curl_url());
    const auto part = [&](CURLUPart which) {
        char* text = nullptr;
        if (::curl_url_get(url.get(), which, &text, 0) != CURLUE_OK) return std::string();
        const std::unique_ptr<char, Deleter> owned(text);
        return std::string(text);
    };
    constexpr unsigned kFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE | CURLU_DISALLOW_USER;
    const auto target = std::make_shared<Target>(
        Target{std::string(path), NSURL::URLWithString(std::string(path)), {}, nullptr});
    const bool isText = std::ranges::none_of(path, isControl) && std::ranges::none_of(base, isControl);
    if (!url || !isText || ::curl_url_set(url.get(), CURLUPART_URL, base.c_str(), kFlags) != CURLUE_OK ||
        ::curl_url_set(url.get(), CURLUPART_URL, target->path.c_str(), kFlags) != CURLUE_OK) {
        target->refusal = networkError(NSURLErrorBadURL, "The request was not sent: its URL is not valid.");
        return target;
    }
    target->url = NSURL::URLWithString(part(CURLUPART_URL));
    if (part(CURLUPART_SCHEME) != "https") {
        target->refusal =
            networkError(NSURLErrorUnsupportedURL, "The request was not sent: its URL is not an https one.");
        return target;
    }
    target->host = part(CURLUPART_HOST);
    if (const std::string port = part(CURLUPART_PORT); !port.empty()) target->host += ':' + port;
    return target;
}

// Transfers: the use of one libcurl handle
// -------------------------------------------------------------------------------------------------------

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

class HeaderList {
public:
    HeaderList() = default;
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    ~HeaderList() { ::curl_slist_free_all(list_); }

    [[nodiscard]] bool append(const std::string& line) {
        curl_slist* const longer = ::curl_slist_append(list_, line.c_str());
        if (!longer) return false;
        list_ = longer;
        return true;
    }

    void clear() noexcept { ::curl_slist_free_all(std::exchange(list_, nullptr)); }
    [[nodiscard]] curl_slist* get() const noexcept { return list_; }

private:
    curl_slist* list_ = nullptr;
};

/// One libcurl handle, used for one exchange after another. I/O thread only.
class Transfer {
public:
    Transfer();
    ~Transfer() { ::curl_easy_cleanup(easy_); }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    [[nodiscard]] CURL* easy() const noexcept { return easy_; }
    static Transfer* of(CURL* easy) noexcept;

    /// Takes an exchange and sets the handle up for it. What is not `CURLE_OK` ends the exchange.
    [[nodiscard]] CURLcode prepare(std::unique_ptr<Exchange> exchange);

    /// The end of the exchange: hands over its answer as `reader` reads it, or the error.
    void finish(CURLcode result, const AFHTTPResponseSerializer& reader);
    void finish(NSErrorPtr error);

    /// Gives the exchange up.
    [[nodiscard]] std::unique_ptr<Exchange> takeExchange() noexcept { return std::move(exchange_); }

    /// When the exchange times out unless something moves before; nothing if it does not age.
    [[nodiscard]] std::optional<Clock::time_point> deadline() const;
    [[nodiscard]] NSErrorPtr timeoutError() const;

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

    [[nodiscard]] CURLcode setHeaderFields();
    void readHeaderLine(std::string_view line);
    void reset();
    [[nodiscard]] bool has(CURLINFO time) const;
    [[nodiscard]] NSErrorPtr errorFor(CURLcode result) const;
    [[nodiscard]] NSErrorPtr certificateError() const;

    CURL* const easy_;
    CURLcode setupResult_ = CURLE_FAILED_INIT;
    char errorText_[CURL_ERROR_SIZE] = {};
    HeaderList headers_;
    std::shared_ptr<const TrustedCertificates> certificates_;
    std::unique_ptr<Exchange> exchange_;

    std::optional<Clock::time_point> lastMoved_;
    bool isConnecting_ = false;  // from the first socket that was opened to the first connection

    // The answer so far
    HeaderFields fields_;
    HeaderFields::iterator lastField_ = fields_.end();
    bool isHeaderComplete_ = false;
    bool isTooLarge_ = false;
    std::size_t headerSize_ = 0;
    std::string body_;
};

Transfer::Transfer() : easy_(::curl_easy_init()) {
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

Transfer* Transfer::of(CURL* easy) noexcept {
    char* self = nullptr;
    if (::curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self) != CURLE_OK) return nullptr;
    return static_cast<Transfer*>(static_cast<void*>(self));
}

CURLcode Transfer::prepare(std::unique_ptr<Exchange> exchange) {
    exchange_ = std::move(exchange);
    if (setupResult_ != CURLE_OK) return setupResult_;
    errorText_[0] = '\0';
    Options options(easy_);
    if (certificates_ != exchange_->certificates) {
        certificates_ = exchange_->certificates;
        if (!certificates_->file().empty()) options.set(CURLOPT_CAINFO, certificates_->file().c_str());
    }

    // A limit on connecting as a whole makes libcurl try the next address of a host in time. It is lifted
    // once there is a connection. 0 stands for libcurl's own limit, then for none.
    milliseconds connectLimit{0};
    milliseconds backstop{0};
    if (exchange_->idleLimit) {
        connectLimit = *exchange_->idleLimit;
        backstop = std::max(kShortestBackstop, kLongestExchangeInTimeouts * connectLimit);
    }
    if (const CURLcode result = setHeaderFields(); result != CURLE_OK) return result;
    return options.set(CURLOPT_URL, exchange_->target->url.absoluteString().c_str())
        .set(CURLOPT_HTTPHEADER, headers_.get())
        .set(CURLOPT_POSTFIELDS, exchange_->body.c_str())
        .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(exchange_->body.size()))
        .set(CURLOPT_NOPROGRESS, exchange_->listener->progress ? 0L : 1L)
        .set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectLimit.count()))
        .set(CURLOPT_TIMEOUT_MS, static_cast<long>(backstop.count()))
        .result();
}

CURLcode Transfer::setHeaderFields() {
    bool isComplete = headers_.append("Expect:");  // without this libcurl waits a second before a large body
    for (const auto& [name, value] : exchange_->fields) {
        const bool isBlank = value.find_first_not_of(' ') == std::string::npos;
        isComplete = isComplete && headers_.append(isBlank ? name + ';' : name + ": " + value);
    }
    return isComplete ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

curl_socket_t Transfer::onOpenSocket(void* self, curlsocktype, curl_sockaddr* address) {
    static_cast<Transfer*>(self)->isConnecting_ = true;
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

std::size_t Transfer::onHeader(char* data, std::size_t, std::size_t count, void* self) {
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

void Transfer::readHeaderLine(std::string_view line) {
    static constexpr std::string_view kBlanks = " \t";
    const auto trimmed = [](std::string_view text) {
        text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
        return text.substr(0, text.find_last_not_of(kBlanks) + 1);
    };
    if (line.starts_with("HTTP/")) {  // also after an interim answer
        fields_.clear();
        lastField_ = fields_.end();
        isHeaderComplete_ = false;
    } else if (line.empty()) {
        isHeaderComplete_ = true;
    } else if (isHeaderComplete_) {
        // A trailer; nothing in it concerns the answer's body.
    } else if (kBlanks.find(line.front()) != std::string_view::npos) {
        if (lastField_ != fields_.end()) lastField_->second.append(" ").append(trimmed(line));
    } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
        const std::string_view value = trimmed(line.substr(colon + 1));
        const auto [field, isNew] = fields_.try_emplace(std::string(trimmed(line.substr(0, colon))), value);
        if (!isNew) field->second.append(", ").append(value);
        lastField_ = field;
    }
}

std::size_t Transfer::onBody(char* data, std::size_t, std::size_t count, void* self) {
    auto& transfer = *static_cast<Transfer*>(self);
    std::string& body = transfer.body_;
    if (count > kLargestBody - body.size()) {
        transfer.isTooLarge_ = true;
        return 0;
    }
    if (body.empty()) {
        curl_off_t length = -1;
        ::curl_easy_getinfo(transfer.easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        const auto expected = length > 0 ? static_cast<std::size_t>(length) : count;
        body.reserve(std::min(std::max(expected, count), kLargestBody) + kBodyPadding);
    }
    body.append(data, count);
    return count;
}

int Transfer::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t total, curl_off_t sent) {
    const auto& listener = static_cast<Transfer*>(self)->exchange_->listener;
    if (listener->bytesSent.exchange(sent) == sent || listener->isReportWaiting.exchange(true)) return 0;
    enqueue(listener->queue, [listener, total] {
        listener->isReportWaiting = false;
        listener->progress(listener->bytesSent, total);
    });
    return 0;
}

void Transfer::begin() {
    if (!lastMoved_) lastMoved_ = Clock::now();
}

void Transfer::touch(int socket, Clock::time_point now) {
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

std::optional<Clock::time_point> Transfer::deadline() const {
    if (!lastMoved_ || !exchange_->idleLimit) return std::nullopt;
    return *lastMoved_ + *exchange_->idleLimit;
}

void Transfer::finish(NSErrorPtr error) {
    std::shared_ptr<Listener> listener = std::move(exchange_->listener);
    reset();
    deliver(std::move(listener), {}, std::move(error));
}

void Transfer::finish(CURLcode result, const AFHTTPResponseSerializer& reader) {
    if (result != CURLE_OK) return finish(errorFor(result));
    long status = 0;
    ::curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    const auto response =
        std::make_shared<NSHTTPURLResponse>(exchange_->target->url, status, std::move(fields_));
    NSErrorPtr error;
    Value object = reader.responseObjectForResponse(response, std::move(body_), &error);
    std::shared_ptr<Listener> listener = std::move(exchange_->listener);
    reset();
    deliver(std::move(listener), std::move(object), std::move(error));
}

void Transfer::reset() {
    exchange_.reset();
    headers_.clear();
    lastMoved_.reset();
    isConnecting_ = false;
    fields_.clear();
    lastField_ = fields_.end();
    isHeaderComplete_ = false;
    isTooLarge_ = false;
    headerSize_ = 0;
    body_ = std::string();
}

/// Whether the phase that libcurl dates with `time` is over.
bool Transfer::has(CURLINFO time) const {
    curl_off_t microseconds = 0;
    return ::curl_easy_getinfo(easy_, time, &microseconds) == CURLE_OK && microseconds > 0;
}

NSErrorPtr Transfer::timeoutError() const {
    const char* const phase = headerSize_ > 0                    ? "receiving the answer"
                              : has(CURLINFO_PRETRANSFER_TIME_T) ? "sending or waiting for the answer"
                              : !has(CURLINFO_NAMELOOKUP_TIME_T) ? "looking up the host"
                              : isConnecting_                    ? "connecting"
                                                                 : "negotiating a secure connection";
    return networkError(NSURLErrorTimedOut,
                        "The request to " + exchange_->target->host + " timed out while " + phase + '.');
}

/// What was wrong with the server's certificate. The numbers are OpenSSL's.
NSErrorPtr Transfer::certificateError() const {
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
    const std::string certificate = "The certificate of " + exchange_->target->host;
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
NSErrorPtr Transfer::errorFor(CURLcode result) const {
    const std::string& host = exchange_->target->host;
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

/// Sets close-on-exec on the pair of sockets that comes with a multi handle: libcurl leaves it out and tells
/// nobody their numbers. They are the two Unix sockets whose fill grows with each of two wake-ups.
void setCloseOnExec(CURLM* multi) {
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

/// The transfers of a client, driven by socket readiness. I/O thread only.
class Engine {
public:
    /// `wakeDescriptor` being readable ends a `turn` at once.
    Engine(int wakeDescriptor, const AFHTTPResponseSerializer& reader);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void add(std::unique_ptr<Exchange> exchange);

    /// Waits until something is to be done and does it. May run callbacks of the host's, as its last act.
    /// Returns whether the wake-up descriptor is readable.
    [[nodiscard]] bool turn();

    /// Ends all transfers and gives their exchanges back.
    [[nodiscard]] std::vector<std::unique_ptr<Exchange>> takeAll();

private:
    struct End {
        std::unique_ptr<Transfer> transfer;
        CURLcode result;
        bool isTimeout;
    };

    static int onSocket(CURL* easy, curl_socket_t socket, int interest, void* self, void*);
    static int onTimer(CURLM*, long timeout, void* self);

    void start();
    void runTimer();
    void watch(curl_socket_t socket, int interest, Transfer* transfer);
    [[nodiscard]] bool wait();
    void collect();
    void remove(Transfer& transfer, CURLcode result, bool isTimeout);

    CURLM* const multi_;
    bool isReady_ = false;
    const AFHTTPResponseSerializer& reader_;
    std::deque<std::unique_ptr<Exchange>> waiting_;
    std::vector<std::unique_ptr<Transfer>> active_;
    std::vector<std::unique_ptr<Transfer>> spare_;
    std::vector<End> ended_;

    std::vector<pollfd> sockets_;       // the first is the wake-up descriptor
    std::vector<Transfer*> transfers_;  // whose socket it is, in the same order
    std::vector<pollfd> ready_;
    std::optional<Clock::time_point> timer_;
    Clock::time_point looked_;  // when the sockets were last looked at
};

Engine::Engine(int wakeDescriptor, const AFHTTPResponseSerializer& reader)
    : multi_(::curl_multi_init()),
      reader_(reader),
      sockets_{{wakeDescriptor, POLLIN, 0}},
      transfers_{nullptr} {
    if (!multi_) return;
    setCloseOnExec(multi_);
    const auto set = [this](CURLMoption name, auto value) {
        return ::curl_multi_setopt(multi_, name, value) == CURLM_OK;
    };
    isReady_ = set(CURLMOPT_SOCKETFUNCTION, &onSocket) && set(CURLMOPT_SOCKETDATA, this) &&
               set(CURLMOPT_TIMERFUNCTION, &onTimer) && set(CURLMOPT_TIMERDATA, this) &&
               set(CURLMOPT_MAXCONNECTS, static_cast<long>(kMostConnections));
}

Engine::~Engine() {
    spare_.clear();
    ::curl_multi_cleanup(multi_);
}

void Engine::add(std::unique_ptr<Exchange> exchange) {
    waiting_.push_back(std::move(exchange));
}

void Engine::start() {
    while (!waiting_.empty() && active_.size() < kMostConnections) {
        std::unique_ptr<Exchange> exchange = std::move(waiting_.front());
        waiting_.pop_front();
        if (spare_.empty()) spare_.push_back(std::make_unique<Transfer>());
        active_.push_back(std::move(spare_.back()));
        spare_.pop_back();
        Transfer& transfer = *active_.back();
        CURLcode result = transfer.prepare(std::move(exchange));
        if (result == CURLE_OK && (!isReady_ || ::curl_multi_add_handle(multi_, transfer.easy()) != CURLM_OK))
            result = CURLE_FAILED_INIT;
        if (result != CURLE_OK) remove(transfer, result, false);
    }
}

bool Engine::turn() {
    start();
    runTimer();
    collect();
    const bool isWoken = wait();
    runTimer();
    collect();
    // What moves while this thread is busy, such as reading the authorities, is seen at its next look.
    for (std::size_t index = active_.size(); index-- > 0;) {
        const auto deadline = active_[index]->deadline();
        if (deadline && *deadline <= looked_) remove(*active_[index], CURLE_OPERATION_TIMEDOUT, true);
    }
    for (End& end : std::exchange(ended_, {})) {
        if (end.isTimeout) {
            end.transfer->finish(end.transfer->timeoutError());
        } else {
            end.transfer->finish(end.result, reader_);
        }
        spare_.push_back(std::move(end.transfer));
    }
    return isWoken;
}

void Engine::runTimer() {
    if (!timer_ || *timer_ > Clock::now()) return;
    timer_.reset();
    int running = 0;
    ::curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
}

bool Engine::wait() {
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
    for (const auto& transfer : active_)
        transfer->restamp(looked_, Clock::now());
    return isWoken;
}

void Engine::collect() {
    int left = 0;
    while (const CURLMsg* message = ::curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        if (Transfer* transfer = Transfer::of(message->easy_handle))
            remove(*transfer, message->data.result, false);
    }
}

/// Takes a transfer out; `turn` finishes it once nothing of libcurl is under way.
void Engine::remove(Transfer& transfer, CURLcode result, bool isTimeout) {
    ::curl_multi_remove_handle(multi_, transfer.easy());
    const auto found = std::ranges::find(active_, &transfer, &std::unique_ptr<Transfer>::get);
    ended_.push_back({std::move(*found), result, isTimeout});
    active_.erase(found);
}

std::vector<std::unique_ptr<Exchange>> Engine::takeAll() {
    std::vector<std::unique_ptr<Exchange>> exchanges;
    while (!active_.empty())
        remove(*active_.back(), CURLE_OK, false);
    for (End& end : std::exchange(ended_, {}))
        exchanges.push_back(end.transfer->takeExchange());
    for (auto& exchange : std::exchange(waiting_, {}))
        exchanges.push_back(std::move(exchange));
    return exchanges;
}

int Engine::onSocket(CURL* easy, curl_socket_t socket, int interest, void* self, void*) {
    static_cast<Engine*>(self)->watch(socket, interest, Transfer::of(easy));
    return 0;
}

void Engine::watch(curl_socket_t socket, int interest, Transfer* transfer) {
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

int Engine::onTimer(CURLM*, long timeout, void* self) {
    auto& timer = static_cast<Engine*>(self)->timer_;
    timer.reset();
    if (timeout >= 0) timer = Clock::now() + milliseconds(timeout);
    return 0;
}

}  // namespace

// The client's side
// -------------------------------------------------------------------------------------------------------

/// What the client and its I/O thread share; it outlives whichever of the two ends first.
class ZEMBRA_HIDDEN AFHTTPSessionManager::Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(NSURL url) : baseURL(std::move(url)) {}
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const NSURL baseURL;
    AFHTTPRequestSerializer requestSerializer;
    AFHTTPResponseSerializer responseSerializer;

    /// Hands an exchange to the I/O thread.
    void submit(std::unique_ptr<Exchange> exchange);

    enum class Stop { none, cancel, drop };

    /// Ends the I/O thread: with the exchanges cancelled, or (the process is about to exit) dropped. Waits
    /// for it unless it is the calling thread itself.
    void stop(Stop how);

    /// What the client's destructor does: `stop(Stop::cancel)`. In a forked child, where the thread does not
    /// exist and the connections are the parent's, the session is left as it is.
    void end();

    [[nodiscard]] std::uint64_t nextTaskIdentifier() noexcept { return ++lastTaskIdentifier_; }

    // Settings that `POST` takes as they stand. Guarded by `settingsMutex`.
    std::mutex settingsMutex;
    CompletionQueue completionQueue;
    std::shared_ptr<const TrustedCertificates> certificates = systemCertificates();

    /// Where requests to `path` go. The latest is kept: a host asks for the same few, and often in a row.
    [[nodiscard]] std::shared_ptr<const Target> target(std::string_view path);

    /// Puts `certificates` in the place of those before. These stay until the end: a file's name must not
    /// come again while libcurl remembers what it held.
    void setCertificates(std::shared_ptr<const TrustedCertificates> changed);

private:
    /// What the clients of a process have in common. A forked child starts with a fresh one.
    struct Process {
        Process* const parent = nullptr;
        std::mutex mutex = {};
        std::vector<std::weak_ptr<Session>> sessions = {};     // those whose I/O thread was started
        std::vector<std::shared_ptr<Session>> inherited = {};  // the parent's, with nobody left to end them

        static std::atomic<Process*>& current();
        static CURLcode prepare();
        static void onExit();
    };

    static std::shared_ptr<const TrustedCertificates> systemCertificates();
    [[nodiscard]] bool isForked() const noexcept { return process_ != Process::current().load(); }
    static void refuse(std::unique_ptr<Exchange> exchange, std::string_view text);
    [[nodiscard]] bool start();
    void run();
    void wake() const noexcept;
    [[nodiscard]] bool waitForEnd(std::unique_lock<std::mutex>& lock);

    Process* const process_ = Process::current().load();
    std::atomic<std::uint64_t> lastTaskIdentifier_ = 0;
    std::shared_ptr<const Target> latestTarget_;
    std::vector<std::shared_ptr<const TrustedCertificates>> earlierCertificates_;

    std::mutex mutex_;  // guards what follows
    std::condition_variable ended_;
    std::vector<std::unique_ptr<Exchange>> incoming_;
    Stop stop_ = Stop::none;
    bool isRunning_ = false;  // from the start of the I/O thread to its end
    std::thread thread_;
    std::thread::id threadIdentifier_;
    std::atomic<bool> isInCallback_ = false;  // not guarded
    int wakeDescriptor_ = -1;
};

std::atomic<AFHTTPSessionManager::Session::Process*>& AFHTTPSessionManager::Session::Process::current() {
    static std::atomic<Process*> process = [] {
        ::pthread_atfork(nullptr, nullptr, [] { current() = new Process{current()}; });
        return new Process;
    }();
    return process;
}

/// libcurl is set up once and never cleaned up: the host may use it too. The handler that stops the I/O
/// threads is registered after that, so that it runs before libcurl's own libraries end.
CURLcode AFHTTPSessionManager::Session::Process::prepare() {
    static const CURLcode result = [] {
        const CURLcode code = ::curl_global_init(CURL_GLOBAL_ALL);
        if (code == CURLE_OK && std::atexit(&onExit) != 0) return CURLE_FAILED_INIT;
        return code;
    }();
    return result;
}

void AFHTTPSessionManager::Session::Process::onExit() {
    Process& process = *current().load();
    std::unique_lock lock(process.mutex);
    const auto sessions = std::exchange(process.sessions, {});
    lock.unlock();
    for (const auto& weak : sessions) {
        if (const auto session = weak.lock()) session->stop(Stop::drop);
    }
}

AFHTTPSessionManager::Session::~Session() {
    if (wakeDescriptor_ != -1) ::close(wakeDescriptor_);
}

std::shared_ptr<const TrustedCertificates> AFHTTPSessionManager::Session::systemCertificates() {
    const char* const file = ::curl_version_info(CURLVERSION_NOW)->cainfo;
    return std::make_shared<TrustedCertificates>(file ? file : "");
}

std::shared_ptr<const Target> AFHTTPSessionManager::Session::target(std::string_view path) {
    if (!latestTarget_ || latestTarget_->path != path)
        latestTarget_ = resolve(baseURL.absoluteString(), path);
    return latestTarget_;
}

void AFHTTPSessionManager::Session::setCertificates(std::shared_ptr<const TrustedCertificates> changed) {
    earlierCertificates_.push_back(std::exchange(certificates, std::move(changed)));
}

void AFHTTPSessionManager::Session::submit(std::unique_ptr<Exchange> exchange) {
    if (isForked()) {
        return refuse(std::move(exchange),
                      "The client was made before this process was forked; make a new one.");
    }
    std::unique_lock lock(mutex_);
    if (stop_ != Stop::none) return;  // the process exits
    if (!isRunning_ && !start()) {
        lock.unlock();
        return refuse(std::move(exchange), "The client's thread could not be started.");
    }
    incoming_.push_back(std::move(exchange));
    const bool isFirst = incoming_.size() == 1;
    lock.unlock();  // the I/O thread, once awake, would only wait for it
    if (isFirst) wake();
}

/// Fails an exchange where there is no I/O thread to do it; not inside the call either.
void AFHTTPSessionManager::Session::refuse(std::unique_ptr<Exchange> exchange, std::string_view text) {
    const auto tell = [listener = exchange->listener,
                       error = networkError(NSURLErrorCannotLoadFromNetwork, text)] {
        deliver(listener, {}, error);
    };
    if (!exchange->listener->queue) return tell();
    try {
        std::thread(tell).detach();
    } catch (const std::system_error&) {
        MainQueue::shared().post(tell);
    }
}

/// Starts the I/O thread, with every asynchronous signal blocked: they are the host's.
bool AFHTTPSessionManager::Session::start() {
    if (Process::prepare() != CURLE_OK) return false;
    if (wakeDescriptor_ == -1) wakeDescriptor_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeDescriptor_ == -1) return false;
    {
        const std::lock_guard lock(process_->mutex);
        std::erase_if(process_->sessions, [](const auto& session) { return session.expired(); });
        process_->sessions.push_back(weak_from_this());
    }
    sigset_t blocked;
    sigset_t before;
    ::sigfillset(&blocked);
    for (const int synchronous : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
        ::sigdelset(&blocked, synchronous);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &before);
    try {
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
        threadIdentifier_ = thread_.get_id();
        isRunning_ = true;
    } catch (const std::system_error&) {
        // told by the result
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isRunning_;
}

void AFHTTPSessionManager::Session::wake() const noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(wakeDescriptor_, &one, sizeof one);
}

void AFHTTPSessionManager::Session::run() {
    ::pthread_setname_np(::pthread_self(), "zembra-http");
    isInCallback = &isInCallback_;
    std::optional<Engine> engine(std::in_place, wakeDescriptor_, responseSerializer);
    std::unique_lock lock(mutex_);
    while (stop_ == Stop::none) {
        auto incoming = std::exchange(incoming_, {});
        lock.unlock();
        for (auto& exchange : incoming) {
            if (exchange->refusal) {
                deliver(std::move(exchange->listener), {}, std::move(exchange->refusal));
            } else {
                engine->add(std::move(exchange));
            }
        }
        if (engine->turn()) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t taken = ::read(wakeDescriptor_, &count, sizeof count);
        }
        lock.lock();
    }

    // The connections are closed before the host learns anything, and before the process goes on exiting.
    lock.unlock();
    auto exchanges = engine->takeAll();
    engine.reset();
    lock.lock();
    std::ranges::move(incoming_, std::back_inserter(exchanges));
    incoming_.clear();
    if (stop_ == Stop::drop) {
        incoming_ = std::move(exchanges);  // not destroyed here: what they hold is the host's
    } else {
        lock.unlock();
        for (auto& exchange : exchanges) {
            deliver(
                std::move(exchange->listener), {},
                networkError(NSURLErrorCancelled, "The request was cancelled: its client was destroyed."));
        }
        lock.lock();
    }
    isRunning_ = false;
    ended_.notify_all();
}

void AFHTTPSessionManager::Session::stop(Stop how) {
    std::unique_lock lock(mutex_);
    stop_ = how;
    if (isRunning_) wake();
    std::thread thread = std::move(thread_);
    const bool isOwnThread = isRunning_ && threadIdentifier_ == std::this_thread::get_id();
    if (isOwnThread || (how == Stop::drop && !waitForEnd(lock))) {
        if (thread.joinable()) thread.detach();
        return;
    }
    lock.unlock();
    if (thread.joinable()) thread.join();
}

/// Waits for the I/O thread, however busy the machine is, but not for ever for one inside a callback; false
/// for such a one.
bool AFHTTPSessionManager::Session::waitForEnd(std::unique_lock<std::mutex>& lock) {
    const auto hasEnded = [this] { return !isRunning_; };
    if (ended_.wait_for(lock, kLongestExit, hasEnded)) return true;
    isProcessOver = true;
    while (!isInCallback_) {
        if (ended_.wait_for(lock, kExitCheck, hasEnded)) return true;
    }
    return false;
}

void AFHTTPSessionManager::Session::end() {
    if (!isForked()) return stop(Stop::cancel);
    Process& process = *Process::current().load();
    const std::lock_guard lock(process.mutex);
    process.inherited.push_back(shared_from_this());
}

// The client
// -------------------------------------------------------------------------------------------------------

NSURLSessionTask::NSURLSessionTask(std::uint64_t taskIdentifier, NSURL originalURL)
    : taskIdentifier_(taskIdentifier), originalURL_(std::move(originalURL)) {}

NSURLSessionTask::~NSURLSessionTask() = default;

AFHTTPSessionManager::AFHTTPSessionManager(NSURL baseURL)
    : session_(std::make_shared<Session>(std::move(baseURL))) {}

AFHTTPSessionManager::~AFHTTPSessionManager() {
    session_->end();
}

const NSURL& AFHTTPSessionManager::baseURL() const noexcept {
    return session_->baseURL;
}

AFHTTPRequestSerializer& AFHTTPSessionManager::requestSerializer() {
    return session_->requestSerializer;
}

AFHTTPResponseSerializer& AFHTTPSessionManager::responseSerializer() {
    return session_->responseSerializer;
}

void AFHTTPSessionManager::setCompletionQueue(CompletionQueue queue) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->completionQueue.swap(queue);
}

void AFHTTPSessionManager::addTrustedCertificateAuthorityFile(const std::filesystem::path& file) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->setCertificates(session_->certificates->withFile(file));
}

void AFHTTPSessionManager::addTrustedCertificateAuthority(std::string pem) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->setCertificates(session_->certificates->withText(pem));
}

AFHTTPSessionManager::Task AFHTTPSessionManager::POST(std::string_view path, const Value& parameters,
                                                      Progress progress, Success success, Failure failure) {
    auto exchange = std::make_unique<Exchange>();
    exchange->listener = std::make_shared<Listener>();
    Listener& listener = *exchange->listener;
    listener.progress = std::move(progress);
    listener.success = std::move(success);
    listener.failure = std::move(failure);
    {
        const std::lock_guard lock(session_->settingsMutex);
        listener.queue = session_->completionQueue;
        exchange->certificates = session_->certificates;
        exchange->target = session_->target(path);
    }

    const AFHTTPRequestSerializer& requests = requestSerializer();
    exchange->idleLimit = idleLimitOf(requests.timeoutInterval());
    exchange->body = AFHTTPRequestSerializer::formWithParameters(parameters);
    exchange->fields = requests.HTTPRequestHeaders();
    for (const char* const own : {"Content-Length", "Transfer-Encoding", "Expect"})
        exchange->fields.erase(own);
    exchange->fields.try_emplace("Content-Type", "application/x-www-form-urlencoded");
    exchange->fields.try_emplace("Accept", "application/json");

    exchange->refusal = exchange->target->refusal;
    if (!exchange->refusal) exchange->refusal = headerError(exchange->fields);
    if (const auto& problem = exchange->certificates->problem(); problem && !exchange->refusal) {
        exchange->refusal = networkError(
            NSURLErrorSecureConnectionFailed,
            "The request was not sent: of the trusted certificate authorities, " + *problem + '.');
    }
    Task task = std::make_shared<NSURLSessionTask>(session_->nextTaskIdentifier(), exchange->target->url);
    listener.task = task;
    session_->submit(std::move(exchange));
    return task;
}

}  // namespace zembra
