// What an app token exchange after the first takes, beside a bare libcurl easy handle that sends the very
// same request to the same server, which runs in this process.

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include <ZembraSandbox/SandboxServer.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSBundle.h>

#include "BareClient.h"

namespace zembra::bench {
namespace {

constexpr const char* kClient = "sandbox.demo";
constexpr const char* kBundle = "com.example.host";
constexpr const char* kAuthorityDirectory = "/etc/ssl/certs";
constexpr int kExchangesPerRound = 100;

class Manager : public ZMBSDKAuthManager {
public:
    static std::string cmsAPIHost() { return address; }
    static inline std::string address;
};

/// Makes `count` exchanges at once; true where all went well.
bool exchangeBySDK(ZMBSDKAuthManager& manager, int count) {
    int pending = count;
    bool isGood = true;
    const auto end = [&](bool isSuccess) {
        isGood = isSuccess && isGood;
        if (--pending == 0) MainQueue::shared().stop();
    };
    for (int i = 0; i < count; ++i)
        manager.getAuthTokenSuccess([&](const Value&, const Value&) { end(true); },
                                    [&](const NSErrorPtr&) { end(false); });
    MainQueue::shared().run();
    return isGood;
}

/// `exchange` makes `count` exchanges.
template <class Exchange>
void add(const std::string& name, int count, Exchange exchange) {
    const auto body = [count, exchange](benchmark::State& state) {
        for ([[maybe_unused]] auto _ : state)
            if (!exchange(count)) state.SkipWithError("an exchange failed");
        state.counters["exchanges"] = count;
    };
    benchmark::RegisterBenchmark(name.c_str(), body)
        ->Iterations(std::max(kExchangesPerRound / count, 1))
        ->Repetitions(20)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

int run(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) return EXIT_FAILURE;
    const sandbox::SandboxServer server;
    const std::filesystem::path authority =
        std::filesystem::temp_directory_path() / ("zembra-bench-" + std::to_string(getpid()) + ".pem");
    server.writeCertificateAuthority(authority);
    NSBundle::setMainBundle(std::make_shared<NSBundle>(
        Value::dictionary({{ZMBSDKClientIDKey, kClient}, {ZMBSDKBundleIdentifierKey, kBundle}})));
    Manager::address = server.baseAddress();
    const auto manager = ZMBSDKAuthManager::sharedManager<Manager>();
    manager->authClient()->addTrustedCertificateAuthorityFile(authority);
    if (!exchangeBySDK(*manager, 1)) return EXIT_FAILURE;

    // The bare handle sends the headers that came from the SDK, but those that libcurl makes.
    const auto exchanges = server.exchanges();
    BareClient::Fields fields;
    for (const auto& [name, value] : exchanges.back().headers) {
        if (name != "Host" && name != "Content-Length" && name != "Accept-Encoding")
            fields.emplace_back(name, value);
    }
    const std::string address = server.baseAddress() + "app/token";
    const std::string form = std::string("client_id=") + kClient + "&signature=" + kBundle;
    BareClient kept(address, authority, kAuthorityDirectory, fields);
    for (const int inFlight : {1, 10, 100, 1000})
        add("SDK/" + std::to_string(inFlight), inFlight,
            [&](int number) { return exchangeBySDK(*manager, number); });
    add("libcurl on a kept connection", 1, [&](int) { return kept.post(form); });
    add("libcurl on a fresh connection", 1,
        [&](int) { return BareClient(address, authority, kAuthorityDirectory, fields).post(form); });
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove(authority);
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace zembra::bench

int main(int count, char** arguments) {
    try {
        return zembra::bench::run(count, arguments);
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
