/// A host that leaves its process while requests are under way.
///
///     exiting-host <how> <microseconds> <base address> <PEM text of the authority>
///
/// `flight`: after that time, from `main`. `static`: the same, with a client that static destruction ends.
/// `callback`: inside a callback on the I/O thread. `busy`: while such a callback keeps that thread.
#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <ZembraPlatform/AFHTTPSessionManager.h>

namespace {

std::unique_ptr<zembra::AFHTTPSessionManager> staticClient;

}  // namespace

int main(int count, char** arguments) {
    if (count != 5) return 2;
    const std::string how = arguments[1];
    const std::chrono::microseconds delay(std::atoi(arguments[2]));
    auto client = std::make_unique<zembra::AFHTTPSessionManager>(zembra::NSURL::URLWithString(arguments[3]));
    client->addTrustedCertificateAuthority(arguments[4]);

    static std::promise<void> called;
    if (how == "callback" || how == "busy") {
        client->setCompletionQueue([](std::function<void()> task) { task(); });
        const bool exits = how == "callback";
        client->POST("token", {}, nullptr, nullptr, [exits](auto&&...) {
            if (exits) std::exit(0);
            called.set_value();
            std::this_thread::sleep_for(std::chrono::seconds(30));
        });
        called.get_future().wait();  // for ever where the callback exits
        [[maybe_unused]] auto* const forgotten = client.release();
        std::exit(0);
    }
    for (int request = 0; request < 8; ++request)
        client->POST("token", {}, nullptr, nullptr, nullptr);
    std::this_thread::sleep_for(delay);
    auto* const last = client.release();
    if (how == "static") staticClient.reset(last);
    std::exit(0);
}
