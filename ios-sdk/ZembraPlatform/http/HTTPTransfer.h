#pragma once

// One exchange on a libcurl handle of its own; made, driven and thrown away by the engine, on the I/O thread.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/NSURL.h>

#include "http/HTTPFailure.h"
#include "http/HTTPFraming.h"
#include "http/HTTPRequest.h"

struct curl_slist;
struct curl_sockaddr;

namespace zembra {

/// What came of a request: an error, or else an answer.
struct HTTPOutcome {
    NSErrorPtr error = nullptr;
    NSInteger status = 0;
    NSHTTPURLResponse::HeaderFields fields = {};
    std::string body = {};

    /// Whether the answer states neither length nor chunks: it ended with the connection, and may have been
    /// cut.
    bool endsWithConnection = false;
};

/// One request on its way. A libcurl handle is never used for a second exchange: libcurl 7.88 reads freed
/// memory when the second answer's header starts with a folded line, and counts retries over the life of the
/// handle. Nor is a connection: libcurl takes what follows an answer for the next one (7.88 always, 8.14
/// where TLS has already read it), a server may close a kept connection just as a request goes out, and only
/// on a fresh connection does libcurl never send a request twice.
class HTTPTransfer {
public:
    using Clock = std::chrono::steady_clock;

    explicit HTTPTransfer(HTTPRequest request);
    ~HTTPTransfer();
    HTTPTransfer(const HTTPTransfer&) = delete;
    HTTPTransfer& operator=(const HTTPTransfer&) = delete;

    /// libcurl's handle.
    [[nodiscard]] void* easy() const noexcept { return easy_; }

    /// The transfer of a handle.
    [[nodiscard]] static HTTPTransfer* of(void* easy) noexcept;

    /// libcurl's result of setting the handle up: not 0 ends the exchange.
    [[nodiscard]] int setupResult() const noexcept { return setupResult_; }

    /// The end of the exchange, with libcurl's result.
    [[nodiscard]] HTTPOutcome finish(int result);

    /// Whether more was received for one answer than any may take, whatever it was.
    [[nodiscard]] bool hasReceivedTooMuch() const noexcept { return fault_ == HTTPFault::answerTooLarge; }

    /// Tells the request's `didSend` what was sent since the last call; empty where there is nothing to tell.
    [[nodiscard]] std::function<void()> takeReport();

    /// When the exchange times out unless something moves before; nothing if it does not age.
    [[nodiscard]] std::optional<Clock::time_point> deadline() const;

    /// Ages from the first moment that libcurl waits for something on its behalf.
    void begin();

    /// After libcurl may have given up an address of the host that does not answer.
    void tryNextAddress();

    /// `socket`, one of its own, is ready: something moved.
    void touch(int socket, Clock::time_point now);

    /// What moved at `moment` has been dealt with only now; that time was this thread's own.
    void excuseDelay(Clock::time_point moment, Clock::time_point now) {
        if (lastMoved_ == moment) lastMoved_ = now;
    }

private:
    // libcurl's callbacks, with its types as they are at bottom
    static int onOpenSocket(void* self, int purpose, curl_sockaddr* address);
    static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);

    [[nodiscard]] int setUp();
    [[nodiscard]] HTTPPhase phase() const;
    void readAnswer();

    const HTTPRequest request_;
    void* const easy_;
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headerLines_;
    std::vector<char> errorText_;
    int setupResult_;

    Clock::time_point began_;
    std::optional<Clock::time_point> lastMoved_;
    std::int64_t bodySent_ = 0;
    bool isReportDue_ = false;
    bool isConnecting_ = false;  // from the first socket that was opened to the first connection

    // The answer so far
    HTTPOutcome outcome_;
    HTTPFraming framing_;
    HTTPFault fault_ = HTTPFault::none;
    std::size_t headerSize_ = 0;
};

}  // namespace zembra
