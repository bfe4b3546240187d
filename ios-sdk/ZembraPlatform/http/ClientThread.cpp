// The I/O thread of one HTTP client: how it starts, is woken and stops, what exit and fork mean for it.

#include "http/ClientThread.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <system_error>

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace zembra {

namespace {

/// How long leaving the process waits for an I/O thread that is inside a callback of the host's.
constexpr std::chrono::seconds kLongestExit{1};
constexpr std::chrono::milliseconds kExitCheck{10};

/// Set when leaving the process has waited long enough for I/O threads that are inside a callback of the
/// host's. One that comes back from there must not go on, since libcurl may be gone.
std::atomic<bool> isProcessOver = false;

/// Blocks every asynchronous signal on the calling thread, for a thread that it starts: they are the host's.
class AsynchronousSignalsBlocked {
public:
    AsynchronousSignalsBlocked() noexcept {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int synchronous : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
            ::sigdelset(&blocked, synchronous);
        ::pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    ~AsynchronousSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    AsynchronousSignalsBlocked(const AsynchronousSignalsBlocked&) = delete;
    AsynchronousSignalsBlocked& operator=(const AsynchronousSignalsBlocked&) = delete;

private:
    sigset_t before_;
};

/// On an I/O thread: its flag "in the host's code". Nothing on other threads.
thread_local std::atomic<bool>* hostCodeFlag = nullptr;

}  // namespace

/// The I/O threads of a process. A forked child starts with an empty one.
class ClientThread::Registry {
public:
    static std::atomic<Registry*>& current();

    /// Sets libcurl up and has the threads stopped when the process exits: before libcurl's own libraries
    /// end, since this handler is registered after these were set up. What failed is tried anew at the next
    /// call.
    [[nodiscard]] bool prepareProcess() {
        static bool isPrepared = false;
        const std::lock_guard lock(mutex_);
        if (!isPrepared) isPrepared = HTTPEngine::prepareProcess() && std::atexit(&stopAll) == 0;
        return isPrepared;
    }

    /// Before a thread is started. False once leaving the process has begun: none may be started any more.
    [[nodiscard]] bool add(std::weak_ptr<ClientThread> thread) {
        const std::lock_guard lock(mutex_);
        if (isLeaving_) return false;
        std::erase_if(threads_, [](const auto& other) { return other.expired(); });
        threads_.push_back(std::move(thread));
        return true;
    }

    /// Keeps a thread object of the parent process, which nobody can end here.
    void keepInherited(std::shared_ptr<ClientThread> thread) {
        const std::lock_guard lock(mutex_);
        inherited_.push_back(std::move(thread));
    }

    /// Keeps what was never called: it is the host's, and the I/O thread must not destroy it.
    void keepDropped(std::vector<Completion> completions) {
        const std::lock_guard lock(mutex_);
        dropped_.push_back(std::move(completions));
    }

private:
    explicit Registry(Registry* parent) : parent_(parent) {}

    static void stopAll() {
        Registry& registry = *current().load();
        std::unique_lock lock(registry.mutex_);
        registry.isLeaving_ = true;
        const auto threads = std::exchange(registry.threads_, {});
        lock.unlock();
        for (const auto& weak : threads) {
            if (const auto thread = weak.lock()) thread->stop(Stop::drop);
        }
    }

    [[maybe_unused]] Registry* const parent_;  // reachable, so that no leak is reported
    std::mutex mutex_;                         // guards what follows
    bool isLeaving_ = false;
    std::vector<std::weak_ptr<ClientThread>> threads_;  // those that were started
    std::vector<std::shared_ptr<ClientThread>> inherited_;
    std::vector<std::vector<Completion>> dropped_;
};

std::atomic<ClientThread::Registry*>& ClientThread::Registry::current() {
    static std::atomic<Registry*> registry = [] {
        ::pthread_atfork(nullptr, nullptr, [] { current() = new Registry(current()); });
        return new Registry(nullptr);
    }();
    return registry;
}

ClientThread::Registry& ClientThread::currentRegistry() {
    return *Registry::current().load();
}

ClientThread::~ClientThread() {
    if (wakeDescriptor_ != -1) ::close(wakeDescriptor_);
}

void ClientThread::runHostCode(const std::function<void()>& code) {
    if (!hostCodeFlag) return code();
    *hostCodeFlag = true;
    code();
    *hostCodeFlag = false;
    if (!isProcessOver) return;
    *hostCodeFlag = true;
    while (true)
        ::pause();
}

NSErrorPtr ClientThread::submit(HTTPRequest& request, Completion& completion) {
    if (&registry_ != &currentRegistry()) {
        return networkError(NSURLErrorCannotLoadFromNetwork,
                            "The client was made before this process was forked; make a new one.");
    }
    const std::lock_guard lock(mutex_);
    if (!isRunning_ && stop_ == Stop::none && !start())
        return networkError(NSURLErrorCannotLoadFromNetwork, "The client's thread could not be started.");
    if (stop_ != Stop::none) return nullptr;  // dropped: leaving the process has begun
    submitted_.emplace_back(std::move(request), std::move(completion));
    wake();
    return nullptr;
}

/// Starts the I/O thread; false where that fails. Does nothing once leaving the process has begun.
bool ClientThread::start() {
    if (!registry_.prepareProcess()) return false;
    if (wakeDescriptor_ == -1) wakeDescriptor_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeDescriptor_ == -1) return false;
    auto engine = std::make_unique<HTTPEngine>(wakeDescriptor_);
    if (!registry_.add(weak_from_this())) {
        stop_ = Stop::drop;
        return true;
    }
    const AsynchronousSignalsBlocked inherited;
    try {
        thread_ = std::thread([self = shared_from_this(), engine = std::move(engine)]() mutable {
            self->run(std::move(engine));
        });
    } catch (const std::system_error&) {
        return false;
    }
    identifier_ = thread_.get_id();
    isRunning_ = true;
    return true;
}

/// Has the I/O thread look at what is guarded. One failure is made good: a stop that the thread never sees
/// would wait for ever.
void ClientThread::wake() const noexcept {
    const std::uint64_t one = 1;
    for (int attempt = 0; attempt < 2; ++attempt)
        if (::write(wakeDescriptor_, &one, sizeof one) > 0) return;
}

void ClientThread::run(std::unique_ptr<HTTPEngine> engine) {
    ::pthread_setname_np(::pthread_self(), "zembra-http");
    hostCodeFlag = &isInHostCode_;
    std::unique_lock lock(mutex_);
    while (stop_ == Stop::none) {
        auto submitted = std::exchange(submitted_, {});
        lock.unlock();
        for (auto& [request, completion] : submitted) {
            if (request.error)
                completion({.error = request.error});
            else
                engine->add(std::move(request), std::move(completion));
        }
        if (engine->runOnce()) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t taken = ::read(wakeDescriptor_, &count, sizeof count);
        }
        lock.lock();
    }

    // The connections are closed before the host learns anything, and before the process goes on exiting.
    lock.unlock();
    auto unfinished = engine->takeAll();
    engine.reset();
    lock.lock();
    for (auto& [request, completion] : std::exchange(submitted_, {}))
        unfinished.push_back(std::move(completion));
    if (stop_ == Stop::drop) {
        registry_.keepDropped(std::move(unfinished));
    } else {
        lock.unlock();
        for (const Completion& completion : unfinished)
            completion({.error = networkError(NSURLErrorCancelled,
                                              "The request was cancelled: its client was destroyed.")});
        unfinished.clear();
        lock.lock();
    }
    isRunning_ = false;
    ended_.notify_all();
}

void ClientThread::stop(Stop how) {
    std::unique_lock lock(mutex_);
    stop_ = how;
    std::thread thread = std::move(thread_);
    const bool isOwnThread = isRunning_ && identifier_ == std::this_thread::get_id();
    if (isRunning_) wake();
    if (isOwnThread || (how == Stop::drop && !waitForEnd(lock))) {
        if (thread.joinable()) thread.detach();
        return;
    }
    lock.unlock();
    if (thread.joinable()) thread.join();
}

/// Waits for the I/O thread, however busy the machine is, but not for ever for one inside a callback; false
/// for such a one.
bool ClientThread::waitForEnd(std::unique_lock<std::mutex>& lock) {
    const auto hasEnded = [this] { return !isRunning_; };
    if (ended_.wait_for(lock, kLongestExit, hasEnded)) return true;
    isProcessOver = true;
    while (!isInHostCode_) {
        if (ended_.wait_for(lock, kExitCheck, hasEnded)) return true;
    }
    return false;
}

void ClientThread::end() {
    if (&registry_ == &currentRegistry()) return stop(Stop::cancel);
    currentRegistry().keepInherited(shared_from_this());
}

}  // namespace zembra
