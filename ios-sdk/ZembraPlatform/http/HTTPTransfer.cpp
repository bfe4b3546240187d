// One exchange on a libcurl handle of its own: what the handle is set to, what it receives, and what came of
// it.

#include "http/HTTPTransfer.h"

#include <algorithm>
#include <new>
#include <system_error>
#include <type_traits>
#include <utility>

#include <curl/curl.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "http/HTTPText.h"
#include "system/FileContents.h"

namespace zembra {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t kLargestBody = std::size_t{16} << 20;
constexpr std::size_t kLargestHeader = std::size_t{256} << 10;
constexpr std::uint64_t kMostReceived = std::uint64_t{64} << 20;  // whatever it is, for one answer
constexpr std::size_t kLargestAuthorityFile = std::size_t{4} << 20;

/// The end of a request whose bytes keep trickling: so many times its timeout, and at least a minute.
constexpr int kLongestExchangeInTimeouts = 10;
constexpr milliseconds kShortestBackstop = std::chrono::minutes(1);

/// Sets options until one fails, and remembers that.
class Options {
public:
    explicit Options(CURL* easy) : easy_(easy) {}

    template <class Option>
    Options& set(CURLoption name, Option value) {
        // libcurl reads its numbers as `long` or `curl_off_t`; an `int` here would be read beyond its end.
        static_assert(!std::is_integral_v<Option> || sizeof(Option) == sizeof(long) ||
                      sizeof(Option) == sizeof(curl_off_t));
        if (result_ == CURLE_OK) result_ = ::curl_easy_setopt(easy_, name, value);
        return *this;
    }

    [[nodiscard]] CURLcode result() const noexcept { return result_; }

private:
    CURL* const easy_;
    CURLcode result_ = CURLE_OK;
};

std::unique_ptr<curl_slist, void (*)(curl_slist*)> listOf(const std::vector<std::string>& lines) {
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> list(nullptr, &::curl_slist_free_all);
    for (const std::string& line : lines) {
        curl_slist* const longer = ::curl_slist_append(list.get(), line.c_str());
        if (!longer) throw std::bad_alloc();
        [[maybe_unused]] curl_slist* const shorter = list.release();
        list.reset(longer);
    }
    return list;
}

/// How many bytes came on a connection so far, TLS's own among them; 0 where the system does not count them.
std::uint64_t receivedOn(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
    return info.tcpi_bytes_received;
}

/// The same for the server and for a proxy that is spoken to over TLS.
void setAuthorities(Options& options, const TrustedCertificates& authorities) {
    const auto orNull = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    const auto set = [&](CURLoption directory, CURLoption file, CURLoption text) {
        options.set(directory, orNull(authorities.directory())).set(file, orNull(authorities.file()));
        std::string pem = authorities.additions();
        if (pem.empty()) return;
        // libcurl takes either a file or a text. A system without that file still has the added ones.
        std::error_code ignored;
        if (!authorities.file().empty())
            pem += contentsOfFile(authorities.file(), kLargestAuthorityFile, ignored);
        curl_blob blob{pem.data(), pem.size(), CURL_BLOB_COPY};
        options.set(text, &blob);
    };
    set(CURLOPT_CAPATH, CURLOPT_CAINFO, CURLOPT_CAINFO_BLOB);
    set(CURLOPT_PROXY_CAPATH, CURLOPT_PROXY_CAINFO, CURLOPT_PROXY_CAINFO_BLOB);
}

}  // namespace

HTTPTransfer::HTTPTransfer(HTTPRequest request)
    : request_(std::move(request)),
      easy_(::curl_easy_init()),
      headerLines_(listOf(request_.headerLines)),
      errorText_(CURL_ERROR_SIZE),
      setupResult_(setUp()) {}

HTTPTransfer::~HTTPTransfer() {
    ::curl_easy_cleanup(easy_);
}

int HTTPTransfer::setUp() {
    if (!easy_) return CURLE_FAILED_INIT;
    // A limit on connecting as a whole makes libcurl try the next address of a host in time: each but the
    // last has half of what is left. It is lifted once there is a connection, and a little longer than the
    // request's own, since libcurl counts whole milliseconds. 0 stands for libcurl's own limit.
    const milliseconds connectLimit =
        request_.idleLimit ? *request_.idleLimit + milliseconds{1} : milliseconds{0};
    Options options(easy_);
    options.set(CURLOPT_PRIVATE, static_cast<void*>(this))
        .set(CURLOPT_ERRORBUFFER, errorText_.data())
        .set(CURLOPT_URL, request_.url.absoluteString().c_str())
        .set(CURLOPT_PROTOCOLS_STR, "https")
        .set(CURLOPT_REDIR_PROTOCOLS_STR, "https")
        .set(CURLOPT_FOLLOWLOCATION, 0L)
        .set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1})
        .set(CURLOPT_HTTP09_ALLOWED, 0L)
        .set(CURLOPT_ACCEPT_ENCODING, "")  // every one that libcurl can decode
        .set(CURLOPT_NETRC, long{CURL_NETRC_IGNORED})
        .set(CURLOPT_DISALLOW_USERNAME_IN_URL, 1L)
        .set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L)
        .set(CURLOPT_NOSIGNAL, 1L)
        .set(CURLOPT_QUICK_EXIT, 1L)
        .set(CURLOPT_FRESH_CONNECT, 1L)
        .set(CURLOPT_FORBID_REUSE, 1L)
        .set(CURLOPT_TCP_KEEPALIVE, 1L)
        .set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectLimit.count()))
        .set(CURLOPT_OPENSOCKETFUNCTION, &onOpenSocket)
        .set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
    options.set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2})
        .set(CURLOPT_SSL_VERIFYPEER, 1L)
        .set(CURLOPT_SSL_VERIFYHOST, 2L);
    setAuthorities(options, *request_.authorities);
    options.set(CURLOPT_POST, 1L)
        .set(CURLOPT_HTTPHEADER, headerLines_.get())
        .set(CURLOPT_POSTFIELDS, request_.body.c_str())
        .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()))
        .set(CURLOPT_HEADERFUNCTION, &onHeader)
        .set(CURLOPT_HEADERDATA, static_cast<void*>(this))
        .set(CURLOPT_WRITEFUNCTION, &onBody)
        .set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    if (request_.didSend) {
        // Told outside libcurl, since it is the host's code: it may even fork.
        const curl_xferinfo_callback note = [](void* self, curl_off_t, curl_off_t, curl_off_t,
                                               curl_off_t sent) {
            auto& transfer = *static_cast<HTTPTransfer*>(self);
            if (std::exchange(transfer.bodySent_, sent) != sent) transfer.isReportDue_ = true;
            return 0;
        };
        options.set(CURLOPT_NOPROGRESS, 0L)
            .set(CURLOPT_XFERINFOFUNCTION, note)
            .set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
    }
    return options.result();
}

HTTPTransfer* HTTPTransfer::of(void* easy) noexcept {
    char* self = nullptr;
    if (::curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self) != CURLE_OK) return nullptr;
    return static_cast<HTTPTransfer*>(static_cast<void*>(self));
}

// What moves
// -------------------------------------------------------------------------------------------------------

int HTTPTransfer::onOpenSocket(void* self, int, curl_sockaddr* address) {
    static_cast<HTTPTransfer*>(self)->isConnecting_ = true;
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

void HTTPTransfer::begin() {
    if (lastMoved_) return;
    began_ = Clock::now();
    lastMoved_ = began_;
}

void HTTPTransfer::tryNextAddress() {
    if (!isConnecting_) return;
    // libcurl 7.88 goes to the next address only when the handle is run again, but asks for that too late.
    // Going on after a pause runs it at once.
    ::curl_easy_pause(easy_, CURLPAUSE_RECV);
    ::curl_easy_pause(easy_, CURLPAUSE_CONT);
}

void HTTPTransfer::touch(int socket, Clock::time_point now) {
    lastMoved_ = now;
    if (receivedOn(socket) > kMostReceived) fault_ = HTTPFault::answerTooLarge;
    if (!isConnecting_) return;  // connected already, or the resolver's
    sockaddr_storage peer;
    socklen_t size = sizeof peer;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.ss_family == AF_UNIX) {
        return;
    }
    isConnecting_ = false;
    ::curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS, 0L);
}

std::function<void()> HTTPTransfer::takeReport() {
    if (!std::exchange(isReportDue_, false)) return nullptr;
    return [didSend = request_.didSend, sent = bodySent_, total = std::ssize(request_.body)] {
        didSend(sent, total);
    };
}

auto HTTPTransfer::deadline() const -> std::optional<Clock::time_point> {
    if (!lastMoved_ || !request_.idleLimit) return std::nullopt;
    const milliseconds idleLimit = *request_.idleLimit;
    return std::min(*lastMoved_ + idleLimit,
                    began_ + std::max(kShortestBackstop, kLongestExchangeInTimeouts * idleLimit));
}

// What is received
// -------------------------------------------------------------------------------------------------------

std::size_t HTTPTransfer::onHeader(char* data, std::size_t, std::size_t count, void* self) {
    auto& transfer = *static_cast<HTTPTransfer*>(self);
    transfer.headerSize_ += count;
    if (transfer.headerSize_ > kLargestHeader) {
        transfer.fault_ = HTTPFault::answerTooLarge;
        return 0;
    }
    if (!transfer.framing_.takeLine({data, count})) {
        transfer.fault_ = HTTPFault::answerNotHTTP;
        return 0;
    }
    return count;
}

std::size_t HTTPTransfer::onBody(char* data, std::size_t, std::size_t count, void* self) {
    auto& transfer = *static_cast<HTTPTransfer*>(self);
    std::string& body = transfer.outcome_.body;
    if (count > kLargestBody - body.size()) {
        transfer.fault_ = HTTPFault::answerTooLarge;
        return 0;
    }
    try {
        body.append(data, count);
    } catch (const std::bad_alloc&) {
        transfer.fault_ = HTTPFault::outOfMemory;
        return 0;
    }
    return count;
}

// What came of it
// -------------------------------------------------------------------------------------------------------

HTTPOutcome HTTPTransfer::finish(int result) {
    if (result == CURLE_OK && !framing_.hasWholeHeader())
        fault_ = HTTPFault::headerCut;  // libcurl 7.88 is content
    if (result == CURLE_OK && fault_ == HTTPFault::none) {
        try {
            readAnswer();
            return std::move(outcome_);
        } catch (const std::bad_alloc&) {
            fault_ = HTTPFault::outOfMemory;
        }
    }
    HTTPFailure failure{.result = result,
                        .fault = fault_,
                        .phase = phase(),
                        .host = request_.host,
                        .detail = errorText_.data(),
                        .trustOrigin = request_.authorities->origin()};
    ::curl_easy_getinfo(easy_, CURLINFO_SSL_VERIFYRESULT, &failure.verifyResult);
    ::curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &failure.systemError);
    ::curl_easy_getinfo(easy_, CURLINFO_HTTP_CONNECTCODE, &failure.proxyStatus);
    return {.error = errorOf(failure)};
}

/// Status and fields of the last answer: those of interim ones, proxies and trailers are other kinds to
/// libcurl.
void HTTPTransfer::readAnswer() {
    long status = 0;
    ::curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &status);
    outcome_.status = status;
    outcome_.endsWithConnection = framing_.endsWithConnection();
    constexpr int kLastAnswer = -1;
    for (curl_header* field = nullptr;
         (field = ::curl_easy_nextheader(easy_, CURLH_HEADER, kLastAnswer, field)) != nullptr;) {
        std::string text = field->value;
        std::ranges::replace(text, '\r', ' ');  // libcurl 7.88 leaves one where a folded value goes on
        const auto [known, isNew] = outcome_.fields.try_emplace(field->name, trimmed(text));
        if (!isNew) known->second.append(", ").append(trimmed(text));
    }
}

HTTPPhase HTTPTransfer::phase() const {
    const auto isOver = [this](CURLINFO time) {
        curl_off_t microseconds = 0;
        return ::curl_easy_getinfo(easy_, time, &microseconds) == CURLE_OK && microseconds > 0;
    };
    curl_off_t sent = 0;
    ::curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &sent);
    // libcurl 7.88 starts that time while a large body is still being sent.
    const bool isReceiving = isOver(CURLINFO_STARTTRANSFER_TIME_T) && sent >= std::ssize(request_.body);
    if (headerSize_ > 0 || isReceiving) return HTTPPhase::receiving;
    if (isOver(CURLINFO_PRETRANSFER_TIME_T)) return HTTPPhase::waiting;
    if (!isOver(CURLINFO_NAMELOOKUP_TIME_T)) return HTTPPhase::resolving;
    return isConnecting_ ? HTTPPhase::connecting : HTTPPhase::securing;
}

}  // namespace zembra
