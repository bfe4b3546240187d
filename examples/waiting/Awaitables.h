#pragma once

// How other threads and coroutines wait for the SDK: a header to copy into a host.

#include <coroutine>
#include <exception>
#include <future>
#include <memory>
#include <string>

#include <ZembraCoreSDK/ZembraCoreSDK.h>

#include <ZembraPlatform/MainQueue.h>

/// How a registration ended.
struct Registration {
    bool success = false;
    zembra::NSErrorPtr error;
};

/// Registers, and lets another thread wait. The main queue's thread does the work and must go on draining.
inline std::future<Registration> registration() {
    const auto promise = std::make_shared<std::promise<Registration>>();
    zembra::MainQueue::shared().post([promise] {
        zembra::ZMBApplication::configureApplication(
            [promise](bool success, const zembra::NSErrorPtr& error) {
                promise->set_value({success, error});
            });
    });
    return promise->get_future();
}

/// `co_await Registering()` gives a Registration, on the main queue's thread.
struct Registering {
    Registration result;

    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        zembra::ZMBApplication::configureApplication(
            [this, waiting](bool success, const zembra::NSErrorPtr& error) {
                result = {success, error};
                waiting.resume();  // last: the coroutine may end here, and this object with it
            });
    }
    Registration await_resume() const { return result; }
};

/// The same for a member's new token; without one, `error` says why.
struct Refreshing {
    std::string refreshToken;
    zembra::Value memberToken;
    zembra::NSErrorPtr error;

    bool await_ready() const { return false; }
    void await_suspend(std::coroutine_handle<> waiting) {
        zembra::ZMBSDKAuthManager::sharedManager()->refreshMemberToken(
            refreshToken,
            [this, waiting](const zembra::Value& token) {
                memberToken = token;
                waiting.resume();
            },
            [this, waiting](const zembra::NSErrorPtr& why) {
                error = why;
                waiting.resume();
            });
    }
    zembra::Value await_resume() const { return memberToken; }
};

/// A coroutine that starts at once and that nobody waits for. It catches what it throws, or the process ends.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};
