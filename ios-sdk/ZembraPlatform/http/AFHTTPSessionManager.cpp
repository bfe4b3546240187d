// The HTTP client: makes requests of what its callers want, has its thread carry them out, and delivers the
// outcomes.

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "http/ClientThread.h"
#include "http/HTTPFailure.h"
#include "http/HTTPRequest.h"
#include "http/TrustedCertificates.h"

namespace zembra {

extern "C" {
const char AFNetworkingOperationFailingURLResponseErrorKey[] = "AFNetworkingOperationFailingURLResponseError";
const char AFHTTPSessionErrorDomain[] = "AFHTTPSessionErrorDomain";
}

/// What the client and its requests under way share.
struct ZEMBRA_HIDDEN AFHTTPSessionManager::State {
    explicit State(NSURL url) : baseURL(std::move(url)) {}

    const NSURL baseURL;
    AFHTTPRequestSerializer requestSerializer;
    AFHTTPResponseSerializer responseSerializer;
    std::atomic<std::uint64_t> lastTaskIdentifier = 0;
    const std::shared_ptr<ClientThread> thread = std::make_shared<ClientThread>();

    std::mutex mutex;  // guards what follows
    CompletionQueue completionQueue;
    std::shared_ptr<const TrustedCertificates> authorities = TrustedCertificates::ofSystem();
};

namespace {

using std::chrono::milliseconds;
using Success = AFHTTPSessionManager::Success;
using Failure = AFHTTPSessionManager::Failure;
using Progress = AFHTTPSessionManager::Progress;
using CompletionQueue = AFHTTPSessionManager::CompletionQueue;

/// What a timeout beyond this says is "no limit".
constexpr NSTimeInterval kLongestTimeout = std::chrono::hours(24);

/// How long nothing may move, rounded up to the millisecond; nothing for "no limit".
std::optional<milliseconds> idleLimitOf(NSTimeInterval interval) {
    if (!(interval.count() > 0) || interval > kLongestTimeout) return std::nullopt;
    return std::chrono::ceil<milliseconds>(interval);
}

/// An empty queue is the main queue.
void enqueue(const CompletionQueue& queue, std::function<void()> task) {
    if (queue)
        ClientThread::runHostCode([&] { queue(std::move(task)); });
    else
        MainQueue::shared().post(std::move(task));
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

/// Whether a text that may have been cut was not: no beginning of an array or a dictionary is one itself.
bool isWholeCollection(const std::string& json) {
    NSErrorPtr error;
    const Value value = NSJSONSerialization::JSONObjectWithData(json, &error);
    return value.isArray() || value.isDictionary();
}

/// The callbacks of one request and what they are told.
struct Delivery {
    AFHTTPSessionManager::Task task;
    CompletionQueue queue;
    Success success;
    Failure failure;
    std::function<void(std::int64_t, std::int64_t)> didSend;  // here too, so that it ends with the others
    Value object;
    NSErrorPtr error;
};

/// Calls the one callback on the request's queue, where it is destroyed as well.
void deliver(std::shared_ptr<Delivery> delivery) {
    const CompletionQueue queue = std::move(delivery->queue);
    enqueue(queue, [delivery = std::move(delivery)] {
        if (!delivery->error) {
            if (delivery->success) delivery->success(delivery->task, delivery->object);
        } else if (delivery->failure) {
            delivery->failure(delivery->task, delivery->error);
        }
    });
}

/// Completes a request where there is no I/O thread to do it; not inside the call either.
void completeWithoutThread(ClientThread::Completion complete, const NSErrorPtr& error, bool isOnMainQueue) {
    if (isOnMainQueue) return complete({.error = error});
    const auto later = [complete = std::move(complete), error] { complete({.error = error}); };
    try {
        std::thread(later).detach();
    } catch (const std::system_error&) {
        MainQueue::shared().post(later);
    }
}

}  // namespace

NSURLSessionTask::NSURLSessionTask(std::uint64_t taskIdentifier, NSURL originalURL)
    : taskIdentifier_(taskIdentifier), originalURL_(std::move(originalURL)) {}

NSURLSessionTask::~NSURLSessionTask() = default;

AFHTTPSessionManager::AFHTTPSessionManager(NSURL baseURL)
    : state_(std::make_shared<State>(std::move(baseURL))) {}

AFHTTPSessionManager::~AFHTTPSessionManager() {
    state_->thread->end();
}

const NSURL& AFHTTPSessionManager::baseURL() const noexcept {
    return state_->baseURL;
}

AFHTTPRequestSerializer& AFHTTPSessionManager::requestSerializer() {
    return state_->requestSerializer;
}

AFHTTPResponseSerializer& AFHTTPSessionManager::responseSerializer() {
    return state_->responseSerializer;
}

void AFHTTPSessionManager::setCompletionQueue(CompletionQueue queue) {
    const std::lock_guard lock(state_->mutex);
    state_->completionQueue.swap(queue);
}

void AFHTTPSessionManager::addTrustedCertificateAuthorityFile(const std::filesystem::path& file) {
    const std::lock_guard lock(state_->mutex);
    state_->authorities = state_->authorities->withFile(file);
}

void AFHTTPSessionManager::addTrustedCertificateAuthority(std::string pem) {
    const std::lock_guard lock(state_->mutex);
    state_->authorities = state_->authorities->withText(pem);
}

AFHTTPSessionManager::Task AFHTTPSessionManager::POST(std::string_view path, const Value& parameters,
                                                      Progress progress, Success success, Failure failure) {
    HTTPRequest request(state_->baseURL.absoluteString(), path, requestSerializer().HTTPRequestHeaders());
    request.body = AFHTTPRequestSerializer::formWithParameters(parameters);
    request.idleLimit = idleLimitOf(requestSerializer().timeoutInterval());
    CompletionQueue queue;
    {
        const std::lock_guard lock(state_->mutex);
        queue = state_->completionQueue;
        request.authorities = state_->authorities;
    }
    const bool isOnMainQueue = !queue;
    if (progress) request.didSend = reporter(std::move(progress), queue);
    if (const auto& problem = request.authorities->problem(); problem && !request.error) {
        request.error = networkError(
            NSURLErrorSecureConnectionFailed,
            "The request was not sent: of the trusted certificate authorities, " + *problem + '.');
    }
    Task task = std::make_shared<NSURLSessionTask>(++state_->lastTaskIdentifier, request.url);
    auto delivery = std::make_shared<Delivery>(Delivery{
        task, std::move(queue), std::move(success), std::move(failure), request.didSend, {}, nullptr});
    ClientThread::Completion complete = [delivery = std::move(delivery),
                                         state = state_](HTTPOutcome outcome) mutable {
        delivery->error =
            outcome.endsWithConnection && !isWholeCollection(outcome.body)
                ? networkError(NSURLErrorNetworkConnectionLost,
                               "The connection was lost before the answer's end, or told nothing of it.")
                : std::move(outcome.error);
        if (!delivery->error) {
            try {
                const auto response = std::make_shared<NSHTTPURLResponse>(
                    delivery->task->originalURL(), outcome.status, std::move(outcome.fields));
                delivery->object = state->responseSerializer.responseObjectForResponse(
                    response, std::move(outcome.body), &delivery->error);
            } catch (const std::bad_alloc&) {
                delivery->error =
                    networkError(NSURLErrorUnknown, "The answer could not be read: out of memory.");
            }
        }
        deliver(std::move(delivery));
    };
    if (const NSErrorPtr error = state_->thread->submit(request, complete))
        completeWithoutThread(std::move(complete), error, isOnMainQueue);
    return task;
}

}  // namespace zembra
