#pragma once

// The HTTPS client of the SDK and of hosts: forms out, JSON in. `POST` and the serializers for any thread.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSURL.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// The key of a failure's user information under which the answer (`NSHTTPURLResponse`) stands when the
/// server answered and the answer was refused for its status or its content type.
extern "C" ZEMBRA_EXPORT const char AFNetworkingOperationFailingURLResponseErrorKey[];

/// The domain of failures that are not the network layer's. The codes are `AFHTTPSessionErrorCode`.
extern "C" ZEMBRA_EXPORT const char AFHTTPSessionErrorDomain[];

/// Codes of `AFHTTPSessionErrorDomain`. They are permanent; texts may change.
enum AFHTTPSessionErrorCode : NSInteger {
    AFHTTPSessionErrorUnacceptableStatus = 1,       ///< Carries the response.
    AFHTTPSessionErrorUnacceptableContentType = 2,  ///< Carries the response.
    AFHTTPSessionErrorCannotDecodeBody = 3,         ///< Carries the decoder's error as the underlying one.
    AFHTTPSessionErrorHeaderRefused = 4,  ///< Nothing was sent; the underlying error names the header.
    AFHTTPSessionErrorInvalidHeader = 5,  ///< That underlying error.
};

/// A length of time in seconds.
using NSTimeInterval = std::chrono::duration<double>;

/// One request under way, as its callbacks name it.
class ZEMBRA_EXPORT NSURLSessionTask : public NSObject {
public:
    NSURLSessionTask(std::uint64_t taskIdentifier, NSURL originalURL);
    ~NSURLSessionTask() override;

    /// Unique among the tasks of one client, counted from 1.
    [[nodiscard]] std::uint64_t taskIdentifier() const noexcept { return taskIdentifier_; }
    [[nodiscard]] const NSURL& originalURL() const noexcept { return originalURL_; }

private:
    const std::uint64_t taskIdentifier_;
    const NSURL originalURL_;
};

/// What a client's requests are built from: the timeout and the default header fields. From the start there
/// is one such field, "User-Agent", of the host's name and version (from the main bundle) and the system.
/// Each call is atomic, so threads may overlap; a sequence of calls is not.
class ZEMBRA_EXPORT AFHTTPRequestSerializer : public NSObject {
public:
    AFHTTPRequestSerializer();
    ~AFHTTPRequestSerializer() override;

    /// Requests built from now on fail with `NSURLErrorTimedOut` once nothing has moved for this long, in
    /// every phase: resolving, connecting, TLS, sending, waiting, receiving. 60 seconds unless set; what is
    /// not positive means no limit.
    void setTimeoutInterval(NSTimeInterval interval);
    [[nodiscard]] NSTimeInterval timeoutInterval() const;

    /// Sets the default value of a header for requests built from now on; an absent value removes the header.
    /// Any text is taken; a request that would carry a control character in a name or a value fails unsent.
    void setValue(std::optional<std::string> value, std::string_view field);

    /// The default value of a header (names compare without regard to case), or `std::nullopt`.
    [[nodiscard]] std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

    /// All default header fields.
    [[nodiscard]] NSHTTPURLResponse::HeaderFields HTTPRequestHeaders() const;

    /// The body of a request with `parameters`: the entries of a dictionary in their order, names and values
    /// (each as its text) percent-encoded byte by byte except for the unreserved characters of RFC 3986, so
    /// that any bytes arrive intact. Anything but a dictionary makes an empty body.
    [[nodiscard]] static std::string formWithParameters(const Value& parameters);

private:
    struct State;
    const std::unique_ptr<State> state_;
};

/// How a client's answers are read. Thread rule as for the request serializer.
class ZEMBRA_EXPORT AFHTTPResponseSerializer : public NSObject {
public:
    AFHTTPResponseSerializer();
    ~AFHTTPResponseSerializer() override;

    /// The content types that answers may have, without parameters, compared without regard to case. From the
    /// start: application/json, text/json, text/javascript.
    void setAcceptableContentTypes(std::set<std::string> types);
    [[nodiscard]] std::set<std::string> acceptableContentTypes() const;

    /// The decoded body, nothing for an empty one. In this order, and with `*error` set: refuses a status
    /// outside 2xx, then another content type than the acceptable ones (none at all is refused with a body,
    /// accepted without one), then a body that is no JSON text.
    [[nodiscard]] Value responseObjectForResponse(const std::shared_ptr<NSHTTPURLResponse>& response,
                                                  std::string body, NSErrorPtr* error) const;

private:
    struct State;
    const std::unique_ptr<State> state_;
};

/// An HTTPS client bound to one base URL, over libcurl.
///
/// Requests run on one I/O thread of the client's own, started with the first request; callbacks are
/// delivered on the completion queue, the main queue unless the host sets another. Certificates are always
/// verified; redirects are not followed; answers over 16 MiB of body (after decompression) or 256 KiB of
/// header, or over 64 MiB of anything on the wire, are cut off as failures. Up to eight requests are under
/// way at once; the others wait in line, where they do not age. A request whose bytes keep trickling ends
/// after ten times its timeout, at least a minute. The environment's proxy settings (`https_proxy`,
/// `all_proxy`, `no_proxy`) are honoured.
///
/// A request is sent at most once: where the connection is lost, the request fails, and it is the caller's to
/// send it again. An answer that ends early is no answer. One that states neither length nor chunks, so that
/// only the end of the connection ends it, counts only where its body is a whole JSON array or dictionary.
/// Each request makes a connection of its own.
///
/// `POST` may be called from any thread. Destroying a client takes a moment at most, is allowed inside a
/// callback, and ends its requests: their failure callbacks get `NSURLErrorCancelled`. Once leaving the
/// process has begun, requests are dropped without a callback, those under way as well as new ones; no thread
/// is started. In a forked child every request of a client made before fails.
///
/// Where memory runs out on the I/O thread the request at hand fails; the process ends (`std::terminate`)
/// only where even that cannot be told.
///
/// A host's tests derive from the class and override `POST`: no thread is started, nothing touches the
/// network.
class ZEMBRA_EXPORT AFHTTPSessionManager : public NSObject {
public:
    using Task = std::shared_ptr<NSURLSessionTask>;
    using Progress = std::function<void(std::int64_t bytesSent, std::int64_t bytesTotal)>;
    using Success = std::function<void(const Task& task, const Value& responseObject)>;
    using Failure = std::function<void(const Task& task, const NSErrorPtr& error)>;

    /// Takes a task and runs it, once, now or later, on whatever thread it chooses.
    using CompletionQueue = std::function<void(std::function<void()> task)>;

    explicit AFHTTPSessionManager(NSURL baseURL);
    ~AFHTTPSessionManager() override;
    AFHTTPSessionManager(const AFHTTPSessionManager&) = delete;
    AFHTTPSessionManager& operator=(const AFHTTPSessionManager&) = delete;

    [[nodiscard]] const NSURL& baseURL() const noexcept;

    /// The parts that the client owns; they live as long as it does. `POST` builds requests with the one and
    /// reads answers with the other.
    [[nodiscard]] AFHTTPRequestSerializer& requestSerializer();
    [[nodiscard]] AFHTTPResponseSerializer& responseSerializer();

    /// Where callbacks of requests made from now on are delivered; an empty function means the main queue. A
    /// queue that runs tasks at once runs them on the I/O thread, where they must not take long.
    ///
    /// What a callback throws leaves the task that runs it: on the main queue it comes out of `drain` or
    /// `run…`. On the I/O thread (a queue that runs tasks at once, or that throws itself) it ends the process
    /// by `std::terminate`.
    virtual void setCompletionQueue(CompletionQueue queue);

    /// Trusts a certificate authority beside the system's, for requests made from now on, to the server and
    /// to a proxy that is spoken to over TLS: a PEM file, or PEM text. A file that cannot be read or holds no
    /// certificate makes every request fail with a text that names it.
    void addTrustedCertificateAuthorityFile(const std::filesystem::path& file);
    void addTrustedCertificateAuthority(std::string pem);

    /// Sends `parameters` (a dictionary; each value as its text) as a URL-encoded form to `path`, resolved
    /// against the base URL. The request is built during the call, with the headers as they stand; the call
    /// does not wait. Exactly one of `success` and `failure` runs, once, later, never inside the call.
    /// `progress` runs as bytes of the body go out. Returns the task, which may be dropped. Throws
    /// `std::bad_alloc` where memory runs out; nothing is sent then, and no callback runs.
    virtual Task POST(std::string_view path, const Value& parameters, Progress progress, Success success,
                      Failure failure);

private:
    struct State;
    const std::shared_ptr<State> state_;
};

}  // namespace zembra
