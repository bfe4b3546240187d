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

int main(int count, char** arguments) {
    if (count != 5) return 2;
    const std::string how = arguments[1];
    static std::unique_ptr<zembra::AFHTTPSessionManager> staticClient;
    static auto& called = *new std::promise<void>;  // never destroyed, which would end the wait below
    auto* const client = new zembra::AFHTTPSessionManager(zembra::NSURL::URLWithString(arguments[3]));
    client->addTrustedCertificateAuthority(arguments[4]);
    if (how == "static") staticClient.reset(client);

    const bool exits = how == "callback";
    if (exits || how == "busy") {
        client->setCompletionQueue([](const auto& task) { task(); });
        client->POST("token", {}, nullptr, nullptr, [exits](auto&&...) {
            if (exits) std::exit(0);
            called.set_value();
            std::this_thread::sleep_for(std::chrono::seconds(30));
        });
        called.get_future().wait();  // for ever where the callback exits
    }
    for (int request = 0; request < 8; ++request)
        client->POST("token", {}, nullptr, nullptr, nullptr);
    std::this_thread::sleep_for(std::chrono::microseconds(std::atoi(arguments[2])));
    std::exit(0);
}
