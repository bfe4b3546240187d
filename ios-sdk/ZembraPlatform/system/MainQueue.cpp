// The main queue: tasks behind a mutex, and an eventfd that is readable while some wait. The HTTP client
// posts from its own thread; the host drains.

#include <algorithm>
#include <cstdint>
#include <deque>
#include <mutex>
#include <new>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <ZembraPlatform/MainQueue.h>

namespace zembra {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Longer durations count as this one, which ends after the process.
constexpr milliseconds kForever = std::chrono::hours(24 * 365 * 100);

/// The longest single wait, after which the queue looks again: a minute, or very short while the system gives
/// no descriptor to wait for.
constexpr milliseconds kLongestWait{60'000}, kLongestBlindWait{10};

int newDescriptor() noexcept {
    return ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

}  // namespace

struct ZEMBRA_HIDDEN MainQueue::State {
    mutable std::mutex mutex;
    std::deque<Task> tasks;
    std::uint64_t taken = 0;  // so `taken + tasks.size()` is the number of all tasks ever posted
    bool isStopping = false;
    bool isWaiting = false;
    int descriptor = -1;  // made when first needed: a host that only drains never pays for it

    void makeDescriptor() noexcept {
        if (descriptor != -1) return;
        descriptor = newDescriptor();
        if (!tasks.empty()) setReadable(true);
    }

    /// Waits for a task or a stop, but not beyond `end`; sometimes for less.
    void wait(std::unique_lock<std::mutex>& lock, Clock::time_point end) noexcept {
        makeDescriptor();
        isWaiting = true;
        lock.unlock();
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        const auto longest = descriptor == -1 ? kLongestBlindWait : kLongestWait;
        pollfd wakeUp{descriptor, POLLIN, 0};
        ::poll(&wakeUp, 1, static_cast<int>(std::clamp(left, milliseconds(0), longest).count()));
        lock.lock();
        isWaiting = false;
        if (tasks.empty()) setReadable(false);  // a stop makes it readable, too
    }

    void setReadable(bool readable) const noexcept {
        if (descriptor == -1) return;
        std::uint64_t count = 1;
        [[maybe_unused]] const ssize_t done =
            readable ? ::write(descriptor, &count, sizeof count) : ::read(descriptor, &count, sizeof count);
    }

    /// The first task if it is among the first `end` ones ever posted; otherwise an empty one.
    Task takeBefore(std::uint64_t end) {
        if (taken >= end || tasks.empty()) return nullptr;
        Task task = std::move(tasks.front());
        tasks.pop_front();
        ++taken;
        if (tasks.empty()) setReadable(false);
        return task;
    }

    std::uint64_t posted() const noexcept { return taken + tasks.size(); }

    /// In a forked child: the tasks are the parent's, other threads are gone, and the descriptor would be one
    /// with the parent's. The old contents are left alone, since no destructor of theirs may run here.
    void startAfresh() {
        const int inherited = descriptor;
        State* const fresh = new (this) State;
        if (inherited == -1) return;
        // The host may watch the number, so the new descriptor takes it over.
        fresh->descriptor = newDescriptor();
        if (fresh->descriptor == -1) {
            ::close(inherited);
        } else if (::dup3(fresh->descriptor, inherited, O_CLOEXEC) != -1) {
            ::close(std::exchange(fresh->descriptor, inherited));
        }
    }
};

MainQueue::MainQueue() : state_(new State) {}

MainQueue& MainQueue::shared() {
    static MainQueue* const queue = [] {
        auto* const made = new MainQueue;
        static State* state = nullptr;
        state = made->state_;
        ::pthread_atfork([] { state->mutex.lock(); }, [] { state->mutex.unlock(); },
                         [] { state->startAfresh(); });
        return made;
    }();
    return *queue;
}

void MainQueue::post(Task task) {
    if (!task) return;
    const std::lock_guard lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (state_->tasks.size() == 1) state_->setReadable(true);
}

std::size_t MainQueue::drain() {
    std::size_t count = 0;
    std::unique_lock lock(state_->mutex);
    const std::uint64_t end = state_->posted();
    while (Task task = state_->takeBefore(end)) {
        lock.unlock();
        task();
        task = nullptr;  // what it holds goes before the lock is taken again
        ++count;
        lock.lock();
    }
    return count;
}

void MainQueue::run() {
    runFor(kForever);
}

void MainQueue::runFor(std::chrono::milliseconds duration) {
    [[maybe_unused]] const bool held = runUntil([] { return false; }, duration);
}

bool MainQueue::runUntil(const std::function<bool()>& condition, milliseconds duration) {
    const Clock::time_point end = Clock::now() + std::clamp(duration, milliseconds(0), kForever);
    bool holds = condition();
    std::unique_lock lock(state_->mutex);
    const std::uint64_t waiting = state_->posted();  // these run however short the duration is
    while (!holds && !state_->isStopping) {
        const bool isOver = Clock::now() >= end;
        if (Task task = state_->takeBefore(isOver ? waiting : state_->posted())) {
            lock.unlock();
            task();
            task = nullptr;  // what it holds goes before the lock is taken again
            holds = condition();
            lock.lock();
        } else if (isOver) {
            break;
        } else {
            state_->wait(lock, end);
        }
    }
    state_->isStopping = false;
    return holds;
}

void MainQueue::stop() {
    const std::lock_guard lock(state_->mutex);
    state_->isStopping = true;
    if (state_->isWaiting) state_->setReadable(true);
}

int MainQueue::fileDescriptor() const noexcept {
    const std::lock_guard lock(state_->mutex);
    state_->makeDescriptor();
    return state_->descriptor;
}

std::size_t MainQueue::pendingCount() const {
    const std::lock_guard lock(state_->mutex);
    return state_->tasks.size();
}

}  // namespace zembra
