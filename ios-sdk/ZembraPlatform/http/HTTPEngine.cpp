// The exchanges of an HTTP client under way: libcurl's multi handle, the wait for its sockets, and its
// timers.

#include "http/HTTPEngine.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <utility>

#include <curl/curl.h>
#include <poll.h>
#include <pthread.h>

namespace zembra {

namespace {

using std::chrono::milliseconds;

/// So many requests of a client are under way at once, each on a connection of its own; the others wait in
/// line, where they do not age.
constexpr std::size_t kMostConnections = 8;

/// The longest single wait; poll's own limit is not far beyond.
constexpr milliseconds kLongestWait = std::chrono::hours(24);

/// Sockets of eight transfers, with room for two attempts to connect and the resolver's.
constexpr std::size_t kMostSockets = 4 * kMostConnections;

/// Shared by the threads that are inside libcurl, exclusive while the process forks: a child must not find a
/// lock of libcurl's or of its TLS library's held by a thread that it does not have.
class ForkGate {
public:
    /// Nobody new comes in while this waits: with a shared mutex alone, a fork beside busy clients took
    /// seconds.
    void lock() {
        turn_.lock();
        inside_.lock();
    }
    void unlock() {
        inside_.unlock();
        turn_.unlock();
    }
    void lock_shared() {
        const std::lock_guard turn(turn_);
        inside_.lock_shared();
    }
    void unlock_shared() { inside_.unlock_shared(); }

private:
    std::mutex turn_;
    std::shared_mutex inside_;
};

ForkGate forkGate;

}  // namespace

bool HTTPEngine::prepareProcess() {
    static const bool isGuarded = ::pthread_atfork([] { forkGate.lock(); }, [] { forkGate.unlock(); },
                                                   [] { new (&forkGate) ForkGate; }) == 0;
    const std::shared_lock inside(forkGate);
    return isGuarded && ::curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK;
}

HTTPEngine::HTTPEngine(int wakeDescriptor)
    : multi_([] {
          const std::shared_lock inside(forkGate);
          return ::curl_multi_init();
      }()) {
    const auto set = [this](CURLMoption name, auto value) {
        return ::curl_multi_setopt(multi_.get(), name, value) == CURLM_OK;
    };
    if (!multi_ || !set(CURLMOPT_SOCKETFUNCTION, &onSocket) || !set(CURLMOPT_SOCKETDATA, this) ||
        !set(CURLMOPT_TIMERFUNCTION, &onTimer) || !set(CURLMOPT_TIMERDATA, this))
        throw std::bad_alloc();
    // No allocation inside libcurl's callback, which could not tell that one failed.
    sockets_.reserve(kMostSockets);
    transfers_.reserve(kMostSockets);
    sockets_.push_back({wakeDescriptor, POLLIN, 0});
    transfers_.push_back(nullptr);
}

HTTPEngine::~HTTPEngine() {
    static_cast<void>(takeAll());
}

void HTTPEngine::MultiDeleter::operator()(void* multi) const noexcept {
    const std::shared_lock inside(forkGate);
    ::curl_multi_cleanup(multi);
}

void HTTPEngine::add(HTTPRequest request, Completion completion) {
    waiting_.push_back({std::move(request), std::move(completion)});
}

void HTTPEngine::startWaiting() {
    while (!waiting_.empty() && active_.size() < kMostConnections) {
        auto [request, completion] = std::move(waiting_.front());
        waiting_.pop_front();
        const std::string host = request.host;
        std::unique_ptr<HTTPTransfer> transfer;
        try {
            transfer = std::make_unique<HTTPTransfer>(std::move(request));
        } catch (const std::bad_alloc&) {
            ended_.push_back(
                {{.error = errorOf({.result = CURLE_OUT_OF_MEMORY, .host = host})}, std::move(completion)});
            continue;
        }
        active_.push_back({std::move(transfer), std::move(completion)});
        const HTTPTransfer& started = *active_.back().transfer;
        int result = started.setupResult();
        if (result == CURLE_OK && ::curl_multi_add_handle(multi_.get(), started.easy()) != CURLM_OK)
            result = CURLE_OUT_OF_MEMORY;
        if (result != CURLE_OK) end(started, result);
    }
}

bool HTTPEngine::runOnce() {
    std::shared_lock inside(forkGate);
    startWaiting();
    runTimer();
    inside.unlock();
    waitForSockets();
    const bool isWoken = sockets_[0].revents != 0;
    inside.lock();
    handleSockets();
    runTimer();
    endOverdue();
    inside.unlock();
    for (const auto& report : std::exchange(reports_, {}))
        report();
    for (auto& [outcome, completion] : std::exchange(ended_, {}))
        completion(std::move(outcome));
    return isWoken;
}

void HTTPEngine::runTimer() {
    if (!timer_ || *timer_ > Clock::now()) return;
    timer_.reset();
    int running = 0;
    ::curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &running);
    if (std::exchange(hasLostSocket_, false)) {
        for (const Active& active : active_)
            active.transfer->tryNextAddress();
    }
    collect();
}

void HTTPEngine::waitForSockets() {
    std::optional<Clock::time_point> end = timer_;
    for (const Active& active : active_) {
        const auto deadline = active.transfer->deadline();
        if (deadline && (!end || *deadline < *end)) end = deadline;
    }
    if (!ended_.empty()) end = Clock::time_point::min();
    int timeout = -1;
    if (end) {
        const auto left = std::chrono::ceil<milliseconds>(*end - std::min(*end, Clock::now()));
        timeout = static_cast<int>(std::min<milliseconds>(left, kLongestWait).count());
    }
    const int count = ::poll(sockets_.data(), static_cast<nfds_t>(sockets_.size()), timeout);
    looked_ = Clock::now();
    if (count < 0) std::ranges::for_each(sockets_, [](pollfd& socket) { socket.revents = 0; });
}

void HTTPEngine::handleSockets() {
    std::vector<pollfd> ready;  // the calls below change `sockets_`
    for (std::size_t index = 1; index < sockets_.size(); ++index) {
        if (sockets_[index].revents == 0) continue;
        ready.push_back(sockets_[index]);
        if (transfers_[index]) transfers_[index]->touch(sockets_[index].fd, looked_);
    }
    for (const pollfd& socket : ready) {
        const int events = ((socket.revents & (POLLIN | POLLHUP | POLLERR)) != 0 ? CURL_CSELECT_IN : 0) |
                           ((socket.revents & POLLOUT) != 0 ? CURL_CSELECT_OUT : 0) |
                           ((socket.revents & (POLLERR | POLLNVAL)) != 0 ? CURL_CSELECT_ERR : 0);
        int running = 0;
        ::curl_multi_socket_action(multi_.get(), socket.fd, events, &running);
    }
    const Clock::time_point now = Clock::now();
    for (const Active& active : active_) {
        active.transfer->excuseDelay(looked_, now);
        if (auto report = active.transfer->takeReport()) reports_.push_back(std::move(report));
    }
    if (!ready.empty()) collect();
}

/// Ends what stood still or grew for too long. What moves while this thread is busy, such as reading the
/// authorities, is seen at its next look.
void HTTPEngine::endOverdue() {
    for (std::size_t index = active_.size(); index-- > 0;) {
        const HTTPTransfer& transfer = *active_[index].transfer;
        const auto deadline = transfer.deadline();
        if (transfer.hasReceivedTooMuch())
            end(transfer, CURLE_FILESIZE_EXCEEDED);
        else if (deadline && *deadline <= looked_)
            end(transfer, CURLE_OPERATION_TIMEDOUT);
    }
}

void HTTPEngine::collect() {
    int left = 0;
    while (const CURLMsg* message = ::curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        const CURLcode result = message->data.result;  // gone with the handle
        if (const HTTPTransfer* transfer = HTTPTransfer::of(message->easy_handle)) end(*transfer, result);
    }
}

/// Takes a transfer out of libcurl and destroys it; its completion is called before `runOnce` returns.
void HTTPEngine::end(const HTTPTransfer& transfer, int result) {
    const auto found =
        std::ranges::find(active_, &transfer, [](const Active& active) { return active.transfer.get(); });
    Active ending = std::move(*found);
    active_.erase(found);
    ::curl_multi_remove_handle(multi_.get(), ending.transfer->easy());
    std::ranges::replace(transfers_, ending.transfer.get(), nullptr);
    if (auto report = ending.transfer->takeReport()) reports_.push_back(std::move(report));
    ended_.push_back({ending.transfer->finish(result), std::move(ending.completion)});
}

auto HTTPEngine::takeAll() -> std::vector<Completion> {
    const std::shared_lock inside(forkGate);
    std::vector<Completion> completions;
    for (Active& active : active_) {
        ::curl_multi_remove_handle(multi_.get(), active.transfer->easy());
        completions.push_back(std::move(active.completion));
    }
    active_.clear();
    for (Waiting& waiting : std::exchange(waiting_, {}))
        completions.push_back(std::move(waiting.completion));
    return completions;
}

int HTTPEngine::onSocket(void* easy, int socket, int interest, void* self, void*) {
    static_cast<HTTPEngine*>(self)->watch(socket, interest, HTTPTransfer::of(easy));
    return 0;
}

void HTTPEngine::watch(int socket, int interest, HTTPTransfer* transfer) {
    const auto found = std::ranges::find(sockets_.begin() + 1, sockets_.end(), socket, &pollfd::fd);
    const auto index = found - sockets_.begin();
    if (interest == CURL_POLL_REMOVE) {
        if (found == sockets_.end()) return;
        hasLostSocket_ = true;
        sockets_.erase(found);
        transfers_.erase(transfers_.begin() + index);
        return;
    }
    const auto events = static_cast<short>(((interest & CURL_POLL_IN) != 0 ? POLLIN : 0) |
                                           ((interest & CURL_POLL_OUT) != 0 ? POLLOUT : 0));
    if (transfer) transfer->begin();
    if (found == sockets_.end()) {
        sockets_.push_back({socket, events, 0});
        transfers_.push_back(transfer);
    } else {
        found->events = events;
        transfers_[static_cast<std::size_t>(index)] = transfer;
    }
}

int HTTPEngine::onTimer(void*, long timeout, void* self) {
    auto& timer = static_cast<HTTPEngine*>(self)->timer_;
    timer.reset();
    if (timeout >= 0) timer = Clock::now() + milliseconds(timeout);
    return 0;
}

}  // namespace zembra
