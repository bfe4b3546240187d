#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ZembraPlatform/AFHTTPSessionManager.h>

struct Curl_URL;
struct curl_slist;
struct pollfd;

/// The requests of an HTTP client under way, over libcurl; not part of the public interface.
namespace zembra {

class TrustedCertificates;

/// An error of the network layer.
[[nodiscard, gnu::cold]] NSErrorPtr networkError(NSURLErrorCode code, std::string_view text);

/// Where requests to a path go. Immutable; any number of requests may share it.
class HTTPTarget {
public:
    /// Resolves `path` against `base`.
    [[gnu::cold]] HTTPTarget(const std::string& base, std::string_view path);

    [[nodiscard]] const std::string& path() const noexcept { return path_; }

    /// The path itself where there is none.
    [[nodiscard]] const NSURL& url() const noexcept { return url_; }

    /// With the port where the URL names one.
    [[nodiscard]] const std::string& host() const noexcept { return host_; }

    /// The error of a request to it where nothing can be sent there.
    [[nodiscard]] const NSErrorPtr& refusal() const noexcept { return refusal_; }

    /// The URL as libcurl parsed it.
    [[nodiscard]] Curl_URL* parsed() const noexcept { return parsed_.get(); }

private:
    struct Deleter {
        void operator()(Curl_URL* url) const noexcept;
    };

    const std::string path_;
    const std::unique_ptr<Curl_URL, Deleter> parsed_;
    NSURL url_;
    std::string host_;
    NSErrorPtr refusal_;
};

/// The header of requests, as libcurl takes it. Immutable; any number of requests may share it.
class HTTPRequestHeader {
public:
    using Fields = NSHTTPURLResponse::HeaderFields;

    /// With `fields`, but those that are the connection's, and with those that every request has.
    [[gnu::cold]] explicit HTTPRequestHeader(std::shared_ptr<const Fields> fields);

    /// Whether it was made of these fields.
    [[nodiscard]] bool isOf(const std::shared_ptr<const Fields>& fields) const {
        return fields_ == fields || *fields_ == *fields;
    }

    /// The error of a request with it where a field cannot be sent.
    [[nodiscard]] const NSErrorPtr& refusal() const noexcept { return refusal_; }

    [[nodiscard]] curl_slist* lines() const noexcept { return lines_.get(); }

private:
    struct Deleter {
        void operator()(curl_slist* list) const noexcept;
    };
    void append(const std::string& line);

    const std::shared_ptr<const Fields> fields_;
    NSErrorPtr refusal_;
    std::unique_ptr<curl_slist, Deleter> lines_;
};

/// A request as `POST` built it, and what came of it.
struct HTTPExchange {
    std::shared_ptr<const HTTPTarget> target;
    std::shared_ptr<const HTTPRequestHeader> header;
    std::shared_ptr<const TrustedCertificates> certificates;
    std::string body;
    std::optional<std::chrono::milliseconds> idleLimit;  // how long nothing may move

    /// Told on the I/O thread how much of the body is sent, if anybody asks for it.
    std::function<void(std::int64_t sent, std::int64_t total)> didSend;

    // The outcome: an error (also one found before anything was sent) or else an answer.
    NSErrorPtr error;
    NSInteger status = 0;
    NSHTTPURLResponse::HeaderFields fields;
    std::string answer;

    // Whom to tell; nothing to the engine.
    AFHTTPSessionManager::Task task;
    AFHTTPSessionManager::CompletionQueue queue;
    AFHTTPSessionManager::Success success;
    AFHTTPSessionManager::Failure failure;
    Value object;
};

using HTTPExchanges = std::vector<std::shared_ptr<HTTPExchange>>;

/// The transfers of a client, driven by socket readiness. For one thread, the client's I/O thread.
class HTTPEngine {
public:
    /// Sets libcurl up for the process; it is never cleaned up, since the host may use it too. False where
    /// that fails.
    [[nodiscard]] static bool prepareProcess();

    /// The PEM file of the system's certificate authorities.
    [[nodiscard]] static std::string systemCertificateFile();

    /// After `prepareProcess`. `wakeDescriptor` being readable ends a `turn` at once.
    [[gnu::cold]] explicit HTTPEngine(int wakeDescriptor);
    ~HTTPEngine();
    HTTPEngine(const HTTPEngine&) = delete;
    HTTPEngine& operator=(const HTTPEngine&) = delete;

    void add(std::shared_ptr<HTTPExchange> exchange) { waiting_.push_back(std::move(exchange)); }

    /// Whether there is nothing to be done, now or later, but for an `add`.
    [[nodiscard]] bool isIdle() const noexcept;

    /// Waits until something is to be done and does it. Puts the exchanges that ended, with their outcome, in
    /// the place of what `ended` holds. Returns whether the wake-up descriptor is readable.
    [[nodiscard]] bool turn(HTTPExchanges& ended);

    /// Ends all transfers and gives their exchanges back, without an outcome.
    [[nodiscard]] HTTPExchanges takeAll();

private:
    using Clock = std::chrono::steady_clock;
    class Transfer;

    // libcurl's callbacks, with its types as they are at bottom
    static int onSocket(void* easy, int socket, int interest, void* self, void*);
    static int onTimer(void*, long timeout, void* self);

    void start();
    void runTimer();
    void watch(int socket, int interest, Transfer* transfer);
    [[nodiscard]] bool wait();
    void collect();
    void remove(Transfer& transfer);

    void* const multi_;
    bool isReady_ = false;
    std::deque<std::shared_ptr<HTTPExchange>> waiting_;
    std::vector<std::unique_ptr<Transfer>> active_;
    std::vector<std::unique_ptr<Transfer>> spare_;
    HTTPExchanges ended_;

    std::vector<pollfd> sockets_;       // the first is the wake-up descriptor
    std::vector<Transfer*> transfers_;  // whose socket it is, in the same order
    std::vector<pollfd> ready_;
    std::optional<Clock::time_point> timer_;
    Clock::time_point looked_;  // when the sockets were last looked at
};

}  // namespace zembra
