// A host that waits in every way: a thread for a future, coroutines on the main queue's thread, a screen that
// may be gone by then. It outlives a callback that throws, and shuts down in the middle of a request.

#include <algorithm>
#include <chrono>
#include <functional>
#include <iostream>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "../SandboxHost.h"
#include "Awaitables.h"

using namespace std::chrono_literals;
using namespace zembra;

namespace {

/// The app token for other threads: a copy. Values are immutable and cheap to copy.
class PublishedToken {
public:
    void publish() {  // on the main queue's thread, when a registration has ended
        const std::lock_guard lock(mutex_);
        token_ = ZMBSDKAuthManager::sharedManager()->token();
    }
    Value get() const {
        const std::lock_guard lock(mutex_);
        return token_;
    }

private:
    mutable std::mutex mutex_;
    Value token_;
};

/// Registers, refreshes, and tells the member's token: nothing where either failed.
Detached startUp(std::string refreshToken, std::function<void(Value)> signedIn) {
    const Registration registration = co_await Registering();
    if (!registration.success) co_return signedIn({});
    Refreshing refreshing{std::move(refreshToken), {}, {}};
    signedIn(co_await refreshing);
}

/// What a callback changes, if it is still there.
struct Screen {
    std::string title;
};

void showAccount(const std::shared_ptr<Screen>& screen) {
    ZMBApplication::configureApplication([weak = std::weak_ptr(screen)](bool success, const NSErrorPtr&) {
        if (const auto shown = weak.lock()) shown->title = success ? "Welcome" : "Offline";
    });
}

/// Runs all that waits, whatever it throws.
void drainAll() {
    while (MainQueue::shared().pendingCount() > 0) {
        try {
            MainQueue::shared().drain();
        } catch (const std::exception& exception) {
            std::cout << "a callback failed: " << exception.what() << '\n';
        }
    }
}

void shutDown() {
    ZMBSDKAuthManager::sharedManager()->setAuthClient(nullptr);  // requests under way end within a moment
    MainQueue::shared().drain();                                 // deliver what has ended by now
    MainQueue::shared().stop();                                  // ends `run`
}

void setClientId(const char* clientId) {
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, clientId}, {ZMBSDKBundleIdentifierKey, "com.example.host"}})));
}

}  // namespace

int main() {
    const examples::SandboxHost sandbox;
    MainQueue& queue = MainQueue::shared();
    setClientId("example-host");

    std::jthread worker([&queue] {
        const bool success = registration().get().success;
        std::cout << "a thread: " << (success ? "registered" : "failed") << '\n';
        queue.post([&queue] { queue.stop(); });
    });
    queue.run();
    PublishedToken token;
    token.publish();
    std::cout << "published: " << (token.get().isString() ? "a token" : "none") << '\n';

    for (const char* const refreshToken : {"sandbox.member", "sandbox.expired"}) {
        startUp(refreshToken, [&](const Value& memberToken) {
            std::cout << refreshToken << ": " << (memberToken.isString() ? "signed in" : "not") << '\n';
            queue.stop();
        });
        queue.run();
    }

    auto screen = std::make_shared<Screen>();
    showAccount(screen);
    std::cout << "shown: " << queue.runUntil([&] { return screen->title == "Welcome"; }, 30s) << '\n';
    const std::weak_ptr<Screen> gone = screen;
    showAccount(screen);
    screen.reset();
    std::cout << "held by its request: " << !gone.expired() << '\n';

    queue.post([] { throw std::runtime_error("odd"); });
    queue.post([] { std::cout << "the next one runs\n"; });
    drainAll();

    setClientId("sandbox.silent");
    bool isEnded = false;
    ZMBApplication::configureApplication([&](bool, const NSErrorPtr& error) {
        const auto cause = error->userInfo()[NSUnderlyingErrorKey].as<NSError>();
        std::cout << "shut down: " << (cause && cause->code() == NSURLErrorCancelled ? "cancelled" : "odd")
                  << '\n';
        isEnded = true;
    });
    shutDown();
    queue.run();  // ends with the stop
    return queue.runUntil([&] { return isEnded; }, 30s) ? 0 : 1;
}
