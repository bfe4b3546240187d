#pragma once

// The exchanges of an HTTP client under way, over libcurl; for one thread, the client's I/O thread.

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "http/HTTPRequest.h"
#include "http/HTTPTransfer.h"

struct pollfd;

namespace zembra {

/// Carries requests out, at most eight at once, driven by the readiness of their sockets. It knows nothing of
/// tasks, queues, callbacks and JSON.
class HTTPEngine {
public:
    /// Told, outside libcurl, what came of a request.
    using Completion = std::function<void(HTTPOutcome outcome)>;

    /// Sets libcurl up for the process; it is never cleaned up, since the host may use it too. False where
    /// that fails. From then on no engine is inside libcurl while the process forks.
    [[nodiscard]] static bool prepareProcess();

    /// After `prepareProcess`, on any thread. `wakeDescriptor` being readable ends `runOnce` at once.
    explicit HTTPEngine(int wakeDescriptor);
    ~HTTPEngine();
    HTTPEngine(const HTTPEngine&) = delete;
    HTTPEngine& operator=(const HTTPEngine&) = delete;

    /// Takes a request, which waits in line while eight are under way.
    void add(HTTPRequest request, Completion completion);

    /// Waits until something is to be done, does it, reports progress and completes the exchanges that ended.
    /// Returns whether the wake-up descriptor is readable.
    [[nodiscard]] bool runOnce();

    /// Ends all exchanges, and gives back their completions, which are not called.
    [[nodiscard]] std::vector<Completion> takeAll();

private:
    using Clock = HTTPTransfer::Clock;

    struct Waiting {
        HTTPRequest request;
        Completion completion;
    };
    struct Active {
        std::unique_ptr<HTTPTransfer> transfer;
        Completion completion;
    };
    struct Ended {
        HTTPOutcome outcome;
        Completion completion;
    };

    // libcurl's callbacks, with its types as they are at bottom
    static int onSocket(void* easy, int socket, int interest, void* self, void*);
    static int onTimer(void*, long timeout, void* self);

    void startWaiting();
    void runTimer();
    void watch(int socket, int interest, HTTPTransfer* transfer);
    void waitForSockets();
    void handleSockets();
    void collect();
    void endOverdue();
    void end(const HTTPTransfer& transfer, int result);

    struct MultiDeleter {
        void operator()(void* multi) const noexcept;
    };
    std::deque<Waiting> waiting_;
    std::vector<Active> active_;
    std::vector<Ended> ended_;
    std::vector<std::function<void()>> reports_;  // of progress, to be told outside libcurl

    std::vector<pollfd> sockets_;           // the first is the wake-up descriptor
    std::vector<HTTPTransfer*> transfers_;  // whose socket it is, in the same order
    std::optional<Clock::time_point> timer_;
    bool hasLostSocket_ = false;
    Clock::time_point looked_;  // when the sockets were last looked at

    // The first to go: libcurl 8 still calls `onSocket` while it closes the connections that it keeps.
    const std::unique_ptr<void, MultiDeleter> multi_;
};

}  // namespace zembra
