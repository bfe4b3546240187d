#pragma once

// The I/O thread of one HTTP client: requests in, outcomes out. The client owns it; any thread may hand it
// requests.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "http/HTTPEngine.h"

namespace zembra {

/// Runs the requests of a client on a thread of its own, started with the first one. Leaving the process
/// stops all of these threads. It outlives the client where the client is destroyed on this very thread.
class ClientThread : public std::enable_shared_from_this<ClientThread> {
public:
    using Completion = HTTPEngine::Completion;

    ClientThread() = default;
    ~ClientThread();
    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;

    /// Takes a request over. `completion` runs once, on the I/O thread, also for a request that cannot be
    /// sent; not at all where leaving the process begins before. Where there is no thread, nothing is taken
    /// and the reason returned.
    [[nodiscard]] NSErrorPtr submit(HTTPRequest& request, Completion& completion);

    /// For the client's destructor: completes all requests as cancelled, closes the connections and waits for
    /// the thread, unless it is the calling one. In a forked child, where the thread does not exist and the
    /// connections are the parent's, everything is left as it is.
    void end();

    /// Runs what is the host's. Leaving the process does not wait for an I/O thread that is in there.
    static void runHostCode(const std::function<void()>& code);

private:
    class Registry;
    enum class Stop { none, cancel, drop };

    [[nodiscard]] bool start();
    void run(std::unique_ptr<HTTPEngine> engine);
    void wake() const noexcept;
    void stop(Stop how);
    [[nodiscard]] bool waitForEnd(std::unique_lock<std::mutex>& lock);

    static Registry& currentRegistry();
    Registry& registry_ = currentRegistry();  // of the process that made it

    std::mutex mutex_;  // guards what follows
    std::condition_variable ended_;
    std::vector<std::pair<HTTPRequest, Completion>> submitted_;
    Stop stop_ = Stop::none;
    bool isRunning_ = false;  // from the start of the I/O thread to its end
    std::thread thread_;
    std::thread::id identifier_;
    int wakeDescriptor_ = -1;  // an eventfd, readable when the I/O thread has something to look at

    std::atomic<bool> isInHostCode_ = false;  // not guarded
};

}  // namespace zembra
