#pragma once

// The main queue, on which callbacks are delivered; the host drains it on the thread that it calls main.

#include <chrono>
#include <cstddef>
#include <functional>

#include <ZembraPlatform/Export.h>

namespace zembra {

/// The queue on which callbacks are delivered unless a host says otherwise. The host drains it, on the thread
/// that it calls its main thread; callbacks run there and nowhere else.
///
/// `post`, `stop` and `pendingCount` may be called from any thread. The draining operations are for one
/// thread at a time. No lock is held while a task runs; a task may post, drain or stop. What a task throws
/// leaves the draining operation; the task is gone, the others still wait, and the queue may be drained
/// again.
class ZEMBRA_EXPORT MainQueue {
public:
    using Task = std::function<void()>;

    /// The one main queue of the process. It is never destroyed.
    [[nodiscard]] static MainQueue& shared();

    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

    /// Adds a task behind those that wait. An empty task is ignored.
    void post(Task task);

    /// Runs the tasks that were waiting when the call began and returns their number; it never waits. For a
    /// host with a loop of its own (a game, a user interface).
    std::size_t drain();

    /// Runs tasks as they come until `stop()`. For a program without a loop of its own.
    void run();

    /// Runs tasks as they come for `duration`, or until `stop()`.
    void runFor(std::chrono::milliseconds duration);

    /// Runs tasks as they come until `condition` (asked first and after every task) holds; false where
    /// `duration` ran out or `stop()` came before that.
    [[nodiscard]] bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds duration);

    /// Ends the `run…` operation that is in progress, or else the next one as soon as it starts.
    void stop();

    /// A descriptor that is readable while tasks wait, for poll, epoll or a toolkit's notifier; then call
    /// `drain()`. It belongs to the queue: do not read or close it. -1 where the system gave none.
    [[nodiscard]] int fileDescriptor() const noexcept;

    /// The number of tasks that wait. One that only grows means that nobody drains the queue.
    [[nodiscard]] std::size_t pendingCount() const;

private:
    MainQueue();
    ~MainQueue() = delete;

    struct State;
    State* const state_;
};

}  // namespace zembra
