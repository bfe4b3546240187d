// A shared library that links the SDK, for the unload program: makes one request and lets go of it.

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>

/// Sends a request to `address`; waits for its answer and destroys the client if so asked, else leaves both.
extern "C" __attribute__((visibility("default"))) void makeRequest(const char* address, const char* authority,
                                                                   bool waits) {
    using namespace zembra;
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString(address));
    client->addTrustedCertificateAuthority(authority);
    bool isDone = false;
    const auto note = [&](auto&&...) { isDone = true; };
    if (!waits) {
        client->POST("token", {}, nullptr, nullptr, nullptr);
        static_cast<void>(client.release());
        return;
    }
    client->POST("token", {}, nullptr, note, note);
    static_cast<void>(MainQueue::shared().runUntil([&] { return isDone; }, std::chrono::seconds(10)));
}
