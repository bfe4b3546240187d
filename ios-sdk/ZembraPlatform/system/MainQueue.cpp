#include <algorithm>
#include <cstdint>
#include <ctime>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <ZembraPlatform/MainQueue.h>

namespace zembra {

namespace {

using Clock = std::chrono::steady_clock;

/// Durations from here on have no end that a process could live to see.
constexpr std::chrono::milliseconds kForever = std::chrono::hours(24 * 365);

int newDescriptor() noexcept {
    return ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
}

}  // namespace

struct ZEMBRA_HIDDEN MainQueue::State {
    mutable std::mutex mutex;
    std::deque<Task> tasks;
    std::uint64_t taken = 0;  // so `taken + tasks.size()` is the number of all tasks ever posted
    bool isStopping = false;

    /// Woken by `changed` while `isWaiting`. A semaphore takes one system call less than a condition
    /// variable, whose waiter wakes up to a mutex that it must take to be contended.
    sem_t wakeUp;
    bool isWaiting = false;

    int descriptor = -1;  // made when first asked for: a host that only runs the queue never pays for it

    State() noexcept { ::sem_init(&wakeUp, 0, 0); }

    /// Waits for a call of `changed`, but not beyond `end`; sometimes for less.
    void wait(std::unique_lock<std::mutex>& lock, const std::optional<Clock::time_point>& end) noexcept {
        isWaiting = true;
        lock.unlock();
        if (end) {
            const auto time = end->time_since_epoch();
            const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
            const timespec until{seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
            ::sem_clockwait(&wakeUp, CLOCK_MONOTONIC, &until);
        } else {
            ::sem_wait(&wakeUp);
        }
        lock.lock();
        isWaiting = false;
    }

    /// Ends a wait. Gives up `lock`, which the waiting thread would only wait for.
    void changed(std::unique_lock<std::mutex> lock) noexcept {
        const bool wakes = std::exchange(isWaiting, false);
        lock.unlock();
        if (wakes) ::sem_post(&wakeUp);
    }

    /// Makes the descriptor readable or not. Only called where that changes, so the counter is 0 or 1.
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
        const int number = descriptor;
        State* const fresh = new (this) State;
        if (number == -1) return;
        fresh->descriptor = newDescriptor();
        if (fresh->descriptor == -1) {
            ::close(number);
        } else if (::dup3(fresh->descriptor, number, O_CLOEXEC) != -1) {
            ::close(std::exchange(fresh->descriptor, number));
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
    std::unique_lock lock(state_->mutex);
    state_->tasks.push_back(std::move(task));
    if (state_->tasks.size() == 1) state_->setReadable(true);
    state_->changed(std::move(lock));
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

bool MainQueue::runUntil(const std::function<bool()>& condition, std::chrono::milliseconds duration) {
    std::optional<Clock::time_point> end;
    if (duration < kForever) end = Clock::now() + std::max(duration, std::chrono::milliseconds(0));
    bool holds = condition();
    std::unique_lock lock(state_->mutex);
    const std::uint64_t waiting = state_->posted();  // these run however short the duration is
    while (!holds && !state_->isStopping) {
        const bool isOver = end && Clock::now() >= *end;
        if (Task task = state_->takeBefore(isOver ? waiting : state_->posted())) {
            lock.unlock();
            task();
            task = nullptr;
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
    std::unique_lock lock(state_->mutex);
    state_->isStopping = true;
    state_->changed(std::move(lock));
}

int MainQueue::fileDescriptor() const noexcept {
    const std::lock_guard lock(state_->mutex);
    if (state_->descriptor == -1) {
        state_->descriptor = newDescriptor();
        if (!state_->tasks.empty()) state_->setReadable(true);
    }
    return state_->descriptor;
}

std::size_t MainQueue::pendingCount() const {
    const std::lock_guard lock(state_->mutex);
    return state_->tasks.size();
}

}  // namespace zembra
