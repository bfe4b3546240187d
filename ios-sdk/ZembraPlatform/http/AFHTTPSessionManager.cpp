#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <semaphore.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

#include "http/HTTPEngine.h"
#include "http/TrustedCertificates.h"

namespace zembra {

extern "C" {
const char AFNetworkingOperationFailingURLResponseErrorKey[] = "AFNetworkingOperationFailingURLResponseError";
const char AFHTTPSessionErrorDomain[] = "AFHTTPSessionErrorDomain";
}

namespace {

using std::chrono::milliseconds;
using Success = AFHTTPSessionManager::Success;
using Failure = AFHTTPSessionManager::Failure;
using Progress = AFHTTPSessionManager::Progress;
using CompletionQueue = AFHTTPSessionManager::CompletionQueue;

/// What a timeout beyond this says is "no limit".
constexpr NSTimeInterval kLongestTimeout = std::chrono::hours(24);

/// How long leaving the process waits for an I/O thread that is inside a callback of the host's.
constexpr std::chrono::seconds kLongestExit{1};
constexpr milliseconds kExitCheck{10};

/// Set when leaving the process has waited long enough for I/O threads that are inside a callback of the
/// host's. One that comes back from there must not go on, since libcurl may be gone.
std::atomic<bool> isProcessOver = false;

/// On an I/O thread: where it tells that it is inside a callback, or stays there for good.
thread_local std::atomic<bool>* isInCallback = nullptr;

void enqueue(const CompletionQueue& queue, std::function<void()> task) {
    if (!queue) return MainQueue::shared().post(std::move(task));
    if (!isInCallback) return queue(std::move(task));
    *isInCallback = true;
    queue(std::move(task));
    *isInCallback = false;
    if (!isProcessOver) return;
    *isInCallback = true;
    while (true)
        ::pause();
}

/// Delivers the one result of an exchange.
void deliver(std::shared_ptr<HTTPExchange> exchange) {
    const CompletionQueue queue = std::move(exchange->queue);
    enqueue(queue, [exchange = std::move(exchange)] {
        if (!exchange->error) {
            if (exchange->success) exchange->success(exchange->task, exchange->object);
        } else if (exchange->failure) {
            exchange->failure(exchange->task, exchange->error);
        }
    });
}

/// Tells `progress` on `queue`, with at most one report waiting there.
auto reporter(Progress progress, CompletionQueue queue) {
    struct State {
        State(Progress&& toTell, CompletionQueue&& where)
            : progress(std::move(toTell)), queue(std::move(where)) {}

        const Progress progress;
        const CompletionQueue queue;
        std::atomic<std::int64_t> bytesSent = 0;
        std::atomic<bool> isReportWaiting = false;
    };
    return [state = std::make_shared<State>(std::move(progress), std::move(queue))](std::int64_t sent,
                                                                                    std::int64_t total) {
        if (state->bytesSent.exchange(sent) == sent || state->isReportWaiting.exchange(true)) return;
        enqueue(state->queue, [state, total] {
            state->isReportWaiting = false;
            state->progress(state->bytesSent, total);
        });
    };
}

/// How long nothing may move, rounded up to the millisecond; nothing for "no limit".
std::optional<milliseconds> idleLimitOf(NSTimeInterval interval) {
    if (!(interval.count() > 0) || interval > kLongestTimeout) return std::nullopt;
    return std::chrono::ceil<milliseconds>(interval);
}

}  // namespace

// The client's side
// -------------------------------------------------------------------------------------------------------

/// What the client and its I/O thread share; it outlives whichever of the two ends first.
class ZEMBRA_HIDDEN AFHTTPSessionManager::Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(NSURL url) : baseURL(std::move(url)) { ::sem_init(&parked_, 0, 0); }
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const NSURL baseURL;
    AFHTTPRequestSerializer requestSerializer;
    AFHTTPResponseSerializer responseSerializer;

    /// Hands an exchange to the I/O thread.
    void submit(std::shared_ptr<HTTPExchange> exchange);

    enum class Stop { none, cancel, drop };

    /// Ends the I/O thread: with the exchanges cancelled, or (the process is about to exit) dropped. Waits
    /// for it unless it is the calling thread itself.
    [[gnu::cold]] void stop(Stop how);

    /// What the client's destructor does: `stop(Stop::cancel)`. In a forked child, where the thread does not
    /// exist and the connections are the parent's, the session is left as it is.
    void end();

    [[nodiscard]] std::uint64_t nextTaskIdentifier() noexcept { return ++lastTaskIdentifier_; }

    // Settings that `POST` takes as they stand. Guarded by `settingsMutex`.
    std::mutex settingsMutex;
    CompletionQueue completionQueue;
    std::shared_ptr<const TrustedCertificates> certificates =
        std::make_shared<TrustedCertificates>(HTTPEngine::systemCertificateFile());

    /// Where requests to `path` go, and the header of those with `fields`. The latest ones are kept: a host
    /// makes the same few requests, and often in a row.
    [[nodiscard]] std::shared_ptr<const HTTPTarget> target(std::string_view path);
    [[nodiscard]] std::shared_ptr<const HTTPRequestHeader> header(
        std::shared_ptr<const HTTPRequestHeader::Fields> fields);

    /// Puts `certificates` in the place of those before. These stay until the end: a file's name must not
    /// come again while libcurl remembers what it held.
    void setCertificates(std::shared_ptr<const TrustedCertificates> changed);

private:
    /// What the clients of a process have in common. A forked child starts with a fresh one.
    struct Process {
        Process* const parent = nullptr;
        std::mutex mutex = {};
        std::vector<std::weak_ptr<Session>> sessions = {};     // those whose I/O thread was started
        std::vector<std::shared_ptr<Session>> inherited = {};  // the parent's, with nobody left to end them

        static std::atomic<Process*>& current();
        static bool prepare();
        static void onExit();
    };

    [[nodiscard]] bool isForked() const noexcept { return process_ != Process::current().load(); }
    [[gnu::cold]] static void refuse(std::shared_ptr<HTTPExchange> exchange, std::string_view text);
    [[nodiscard, gnu::cold]] bool start();
    void run();
    void read(HTTPExchange& exchange) const;
    /// Has the I/O thread look at what is guarded. Gives up `lock`, for which the thread would only wait.
    void wake(std::unique_lock<std::mutex>& lock) noexcept;
    [[nodiscard]] bool waitForEnd(std::unique_lock<std::mutex>& lock);

    Process* const process_ = Process::current().load();
    std::atomic<std::uint64_t> lastTaskIdentifier_ = 0;
    std::shared_ptr<const HTTPTarget> latestTarget_;
    std::shared_ptr<const HTTPRequestHeader> latestHeader_;
    std::vector<std::shared_ptr<const TrustedCertificates>> earlierCertificates_;

    std::mutex mutex_;  // guards what follows
    std::condition_variable ended_;
    HTTPExchanges incoming_;
    Stop stop_ = Stop::none;
    bool isRunning_ = false;  // from the start of the I/O thread to its end
    std::thread thread_;
    std::thread::id threadIdentifier_;
    std::atomic<bool> isInCallback_ = false;  // not guarded

    // What wakes the I/O thread: without any request it waits for the semaphore, which takes a system call
    // less than a descriptor, and otherwise for this descriptor and its sockets. It says so with the mutex
    // held, after a look at what is guarded; while it does not wait, it need not be woken.
    enum class Wait : unsigned char { none, semaphore, descriptor };
    std::atomic<Wait> wait_ = Wait::none;
    sem_t parked_;
    int wakeDescriptor_ = -1;
};

std::atomic<AFHTTPSessionManager::Session::Process*>& AFHTTPSessionManager::Session::Process::current() {
    static std::atomic<Process*> process = [] {
        ::pthread_atfork(nullptr, nullptr, [] { current() = new Process{current()}; });
        return new Process;
    }();
    return process;
}

/// The handler that stops the I/O threads is registered after libcurl has been set up, so that it runs before
/// libcurl's own libraries end.
bool AFHTTPSessionManager::Session::Process::prepare() {
    static const bool isPrepared = HTTPEngine::prepareProcess() && std::atexit(&onExit) == 0;
    return isPrepared;
}

void AFHTTPSessionManager::Session::Process::onExit() {
    Process& process = *current().load();
    std::unique_lock lock(process.mutex);
    const auto sessions = std::exchange(process.sessions, {});
    lock.unlock();
    for (const auto& weak : sessions) {
        if (const auto session = weak.lock()) session->stop(Stop::drop);
    }
}

AFHTTPSessionManager::Session::~Session() {
    if (wakeDescriptor_ != -1) ::close(wakeDescriptor_);
    ::sem_destroy(&parked_);
}

std::shared_ptr<const HTTPTarget> AFHTTPSessionManager::Session::target(std::string_view path) {
    if (!latestTarget_ || latestTarget_->path() != path)
        latestTarget_ = std::make_shared<HTTPTarget>(baseURL.absoluteString(), path);
    return latestTarget_;
}

std::shared_ptr<const HTTPRequestHeader> AFHTTPSessionManager::Session::header(
    std::shared_ptr<const HTTPRequestHeader::Fields> fields) {
    if (!latestHeader_ || !latestHeader_->isOf(fields))
        latestHeader_ = std::make_shared<HTTPRequestHeader>(std::move(fields));
    return latestHeader_;
}

void AFHTTPSessionManager::Session::setCertificates(std::shared_ptr<const TrustedCertificates> changed) {
    earlierCertificates_.push_back(std::exchange(certificates, std::move(changed)));
}

void AFHTTPSessionManager::Session::submit(std::shared_ptr<HTTPExchange> exchange) {
    if (isForked()) {
        return refuse(std::move(exchange),
                      "The client was made before this process was forked; make a new one.");
    }
    std::unique_lock lock(mutex_);
    if (stop_ != Stop::none) return;  // the process exits
    if (!isRunning_ && !start()) {
        lock.unlock();
        return refuse(std::move(exchange), "The client's thread could not be started.");
    }
    incoming_.push_back(std::move(exchange));
    wake(lock);
}

/// Fails an exchange where there is no I/O thread to do it; not inside the call either.
void AFHTTPSessionManager::Session::refuse(std::shared_ptr<HTTPExchange> exchange, std::string_view text) {
    exchange->error = networkError(NSURLErrorCannotLoadFromNetwork, text);
    const auto tell = [exchange] { deliver(exchange); };
    if (!exchange->queue) return tell();
    try {
        std::thread(tell).detach();
    } catch (const std::system_error&) {
        MainQueue::shared().post(tell);
    }
}

/// Starts the I/O thread, with every asynchronous signal blocked: they are the host's.
bool AFHTTPSessionManager::Session::start() {
    if (!Process::prepare()) return false;
    if (wakeDescriptor_ == -1) wakeDescriptor_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeDescriptor_ == -1) return false;
    {
        const std::lock_guard lock(process_->mutex);
        std::erase_if(process_->sessions, [](const auto& session) { return session.expired(); });
        process_->sessions.push_back(weak_from_this());
    }
    sigset_t blocked;
    sigset_t before;
    ::sigfillset(&blocked);
    for (const int synchronous : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP})
        ::sigdelset(&blocked, synchronous);
    ::pthread_sigmask(SIG_SETMASK, &blocked, &before);
    try {
        thread_ = std::thread([self = shared_from_this()] { self->run(); });
        threadIdentifier_ = thread_.get_id();
        isRunning_ = true;
    } catch (const std::system_error&) {
        // told by the result
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isRunning_;
}

void AFHTTPSessionManager::Session::wake(std::unique_lock<std::mutex>& lock) noexcept {
    const Wait wait = wait_.exchange(Wait::none);
    lock.unlock();
    if (wait == Wait::semaphore) {
        ::sem_post(&parked_);
    } else if (wait == Wait::descriptor) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(wakeDescriptor_, &one, sizeof one);
    }
}

void AFHTTPSessionManager::Session::run() {
    ::pthread_setname_np(::pthread_self(), "zembra-http");
    isInCallback = &isInCallback_;
    std::optional<HTTPEngine> engine(wakeDescriptor_);
    HTTPExchanges incoming;
    HTTPExchanges ended;
    std::unique_lock lock(mutex_);
    while (stop_ == Stop::none) {
        if (incoming_.empty() && engine->isIdle()) {
            wait_ = Wait::semaphore;
            lock.unlock();
            ::sem_wait(&parked_);  // an early return does no harm
            lock.lock();
            continue;
        }
        incoming.swap(incoming_);
        wait_ = Wait::descriptor;
        lock.unlock();
        for (auto& exchange : incoming) {
            if (exchange->error) {
                deliver(std::move(exchange));
            } else {
                engine->add(std::move(exchange));
            }
        }
        incoming.clear();
        const bool isWoken = engine->turn(ended);
        wait_ = Wait::none;
        if (isWoken) {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t taken = ::read(wakeDescriptor_, &count, sizeof count);
        }
        for (auto& exchange : ended) {
            if (!exchange->error) read(*exchange);
            deliver(std::move(exchange));
        }
        lock.lock();
    }

    // The connections are closed before the host learns anything, and before the process goes on exiting.
    lock.unlock();
    auto exchanges = engine->takeAll();
    engine.reset();
    lock.lock();
    std::ranges::move(incoming_, std::back_inserter(exchanges));
    incoming_.clear();
    if (stop_ == Stop::drop) {
        incoming_ = std::move(exchanges);  // not destroyed here: what they hold is the host's
    } else {
        lock.unlock();
        for (auto& exchange : exchanges) {
            exchange->error =
                networkError(NSURLErrorCancelled, "The request was cancelled: its client was destroyed.");
            deliver(std::move(exchange));
        }
        lock.lock();
    }
    isRunning_ = false;
    ended_.notify_all();
}

void AFHTTPSessionManager::Session::read(HTTPExchange& exchange) const {
    const auto response = std::make_shared<NSHTTPURLResponse>(exchange.target->url(), exchange.status,
                                                              std::move(exchange.fields));
    exchange.object =
        responseSerializer.responseObjectForResponse(response, std::move(exchange.answer), &exchange.error);
}

void AFHTTPSessionManager::Session::stop(Stop how) {
    std::unique_lock lock(mutex_);
    stop_ = how;
    std::thread thread = std::move(thread_);
    const bool isOwnThread = isRunning_ && threadIdentifier_ == std::this_thread::get_id();
    if (isRunning_) {
        wake(lock);
        lock.lock();
    }
    if (isOwnThread || (how == Stop::drop && !waitForEnd(lock))) {
        if (thread.joinable()) thread.detach();
        return;
    }
    lock.unlock();
    if (thread.joinable()) thread.join();
}

/// Waits for the I/O thread, however busy the machine is, but not for ever for one inside a callback; false
/// for such a one.
bool AFHTTPSessionManager::Session::waitForEnd(std::unique_lock<std::mutex>& lock) {
    const auto hasEnded = [this] { return !isRunning_; };
    if (ended_.wait_for(lock, kLongestExit, hasEnded)) return true;
    isProcessOver = true;
    while (!isInCallback_) {
        if (ended_.wait_for(lock, kExitCheck, hasEnded)) return true;
    }
    return false;
}

void AFHTTPSessionManager::Session::end() {
    if (!isForked()) return stop(Stop::cancel);
    Process& process = *Process::current().load();
    const std::lock_guard lock(process.mutex);
    process.inherited.push_back(shared_from_this());
}

// The client
// -------------------------------------------------------------------------------------------------------

NSURLSessionTask::NSURLSessionTask(std::uint64_t taskIdentifier, NSURL originalURL)
    : taskIdentifier_(taskIdentifier), originalURL_(std::move(originalURL)) {}

NSURLSessionTask::~NSURLSessionTask() = default;

AFHTTPSessionManager::AFHTTPSessionManager(NSURL baseURL)
    : session_(std::make_shared<Session>(std::move(baseURL))) {}

AFHTTPSessionManager::~AFHTTPSessionManager() {
    session_->end();
}

const NSURL& AFHTTPSessionManager::baseURL() const noexcept {
    return session_->baseURL;
}

AFHTTPRequestSerializer& AFHTTPSessionManager::requestSerializer() {
    return session_->requestSerializer;
}

AFHTTPResponseSerializer& AFHTTPSessionManager::responseSerializer() {
    return session_->responseSerializer;
}

void AFHTTPSessionManager::setCompletionQueue(CompletionQueue queue) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->completionQueue.swap(queue);
}

void AFHTTPSessionManager::addTrustedCertificateAuthorityFile(const std::filesystem::path& file) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->setCertificates(session_->certificates->withFile(file));
}

void AFHTTPSessionManager::addTrustedCertificateAuthority(std::string pem) {
    const std::lock_guard lock(session_->settingsMutex);
    session_->setCertificates(session_->certificates->withText(pem));
}

AFHTTPSessionManager::Task AFHTTPSessionManager::POST(std::string_view path, const Value& parameters,
                                                      Progress progress, Success success, Failure failure) {
    auto exchange = std::make_shared<HTTPExchange>();
    exchange->success = std::move(success);
    exchange->failure = std::move(failure);
    const AFHTTPRequestSerializer& requests = requestSerializer();
    exchange->idleLimit = idleLimitOf(requests.timeoutInterval());
    exchange->body = AFHTTPRequestSerializer::formWithParameters(parameters);
    auto fields = requests.fields();
    {
        const std::lock_guard lock(session_->settingsMutex);
        exchange->queue = session_->completionQueue;
        exchange->certificates = session_->certificates;
        exchange->target = session_->target(path);
        exchange->header = session_->header(std::move(fields));
    }
    if (progress) exchange->didSend = reporter(std::move(progress), exchange->queue);

    exchange->error = exchange->target->refusal();
    if (!exchange->error) exchange->error = exchange->header->refusal();
    if (const auto& problem = exchange->certificates->problem(); problem && !exchange->error) {
        exchange->error = networkError(
            NSURLErrorSecureConnectionFailed,
            "The request was not sent: of the trusted certificate authorities, " + *problem + '.');
    }
    Task task = std::make_shared<NSURLSessionTask>(session_->nextTaskIdentifier(), exchange->target->url());
    exchange->task = task;
    session_->submit(std::move(exchange));
    return task;
}

}  // namespace zembra
