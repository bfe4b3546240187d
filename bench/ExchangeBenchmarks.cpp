// What an app token exchange costs, beside a bare libcurl easy handle that sends the very same request to the
// same server. The server runs in this process; processor time is that of the client's threads alone.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <thread>

#include <ZembraSandbox/SandboxServer.h>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>

#include <ZembraCoreSDK/ZMBSDKAuthManager.h>

#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSBundle.h>

#include "BareClient.h"

namespace zembra::bench {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr const char* kClient = "sandbox.demo";
constexpr const char* kConnectionEnder = "sandbox.truncated";  // half an answer, then the connection's end
constexpr int kMostConnections = 8;                            // of the SDK's client
constexpr const char* kBundle = "com.example.host";
// Many short rounds: some of them find a busy machine quiet.
constexpr int kRounds = 100;
constexpr int kExchangesPerRound = 100;
constexpr int kConnectionsPerRound = 5;

Seconds processorTime(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// A client of the sandbox: what is measured.
class Client {
public:
    virtual ~Client() = default;
    virtual std::string_view name() const = 0;

    /// Makes `count` exchanges, as many at once as the client can; true where all went well.
    virtual bool exchange(const char* clientIdentifier, int count) = 0;

    /// Has the server end all connections.
    virtual void endConnections() = 0;

    /// Whether answers may come compressed, which they do unless it is said otherwise.
    virtual void setCompressed(bool isCompressed) = 0;

    /// The processor time of its threads so far.
    virtual Seconds processorTime() const = 0;
};

class SDKClient : public Client {
public:
    SDKClient(const std::string& address, const std::string& authority) {
        Manager::address = address;
        manager_ = ZMBSDKAuthManager::sharedManager<Manager>();
        AFHTTPSessionManager& client = *manager_->authClient();
        client.addTrustedCertificateAuthority(authority);

        // A queue that runs tasks at once runs them on the I/O thread: that tells its clock.
        client.setCompletionQueue([this](const std::function<void()>& task) {
            pthread_getcpuclockid(pthread_self(), &networkClock_);
            MainQueue::shared().post(task);
        });
        if (!exchange(kClient, 1)) throw std::runtime_error("The SDK's first exchange failed.");
        client.setCompletionQueue(nullptr);
    }

    std::string_view name() const override { return "SDK"; }

    bool exchange(const char* clientIdentifier, int count) override {
        if (clientIdentifier != clientIdentifier_) {
            clientIdentifier_ = clientIdentifier;
            NSBundle::setMainBundle(std::make_shared<NSBundle>(Value::dictionary(
                {{ZMBSDKClientIDKey, clientIdentifier}, {ZMBSDKBundleIdentifierKey, kBundle}})));
        }
        int pending = count;
        bool isGood = true;
        const auto end = [&] {
            if (--pending == 0) MainQueue::shared().stop();
        };
        for (int i = 0; i < count; ++i) {
            manager_->getAuthTokenSuccess([&](const Value&, const Value&) { end(); },
                                          [&](const NSErrorPtr&) {
                                              isGood = false;
                                              end();
                                          });
        }
        MainQueue::shared().run();
        return isGood;
    }

    void endConnections() override { exchange(kConnectionEnder, kMostConnections); }

    void setCompressed(bool isCompressed) override {
        manager_->authClient()->requestSerializer().setValue(
            isCompressed ? std::nullopt : std::optional<std::string>("identity"), "Accept-Encoding");
    }

    Seconds processorTime() const override {
        return bench::processorTime(CLOCK_THREAD_CPUTIME_ID) + bench::processorTime(networkClock_);
    }

private:
    class Manager : public ZMBSDKAuthManager {
    public:
        static std::string cmsAPIHost() { return address; }
        static inline std::string address;
    };

    std::shared_ptr<ZMBSDKAuthManager> manager_;
    const char* clientIdentifier_ = nullptr;
    clockid_t networkClock_ = CLOCK_THREAD_CPUTIME_ID;
};

class LibcurlClient : public Client {
public:
    LibcurlClient(const std::string& address, const std::string& authority, const BareClient::Fields& fields)
        : client_(address + "app/token", authority, fields) {}

    std::string_view name() const override { return "libcurl"; }

    bool exchange(const char* clientIdentifier, int count) override {
        const std::string form = std::string("client_id=") + clientIdentifier + "&signature=" + kBundle;
        bool isGood = true;
        for (int i = 0; i < count; ++i)
            isGood = client_.post(form) && isGood;
        return isGood;
    }

    void endConnections() override { exchange(kConnectionEnder, 1); }

    void setCompressed(bool isCompressed) override { client_.setCompressed(isCompressed); }

    Seconds processorTime() const override { return bench::processorTime(CLOCK_THREAD_CPUTIME_ID); }

private:
    BareClient client_;
};

/// The same handle on a thread of its own, to which each exchange is handed over: what that alone costs.
class HandedOverClient : public Client {
public:
    explicit HandedOverClient(LibcurlClient& client) : client_(client) {
        sem_init(&begin_, 0, 0);
        sem_init(&end_, 0, 0);
        thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
        pthread_getcpuclockid(thread_.native_handle(), &clock_);
    }
    ~HandedOverClient() override {
        thread_.request_stop();
        sem_post(&begin_);
        thread_.join();
        sem_destroy(&begin_);
        sem_destroy(&end_);
    }

    std::string_view name() const override { return "libcurl on a thread"; }

    bool exchange(const char* clientIdentifier, int count) override {
        bool isGood = true;
        for (int i = 0; i < count; ++i) {
            clientIdentifier_ = clientIdentifier;
            sem_post(&begin_);
            sem_wait(&end_);
            isGood = isGood_ && isGood;
        }
        return isGood;
    }

    void endConnections() override { client_.endConnections(); }

    void setCompressed(bool isCompressed) override { client_.setCompressed(isCompressed); }

    Seconds processorTime() const override {
        return bench::processorTime(CLOCK_THREAD_CPUTIME_ID) + bench::processorTime(clock_);
    }

private:
    void run(const std::stop_token& stop) {
        for (sem_wait(&begin_); !stop.stop_requested(); sem_wait(&begin_)) {
            isGood_ = client_.exchange(clientIdentifier_, 1);
            sem_post(&end_);
        }
    }

    LibcurlClient& client_;
    const char* clientIdentifier_ = nullptr;
    bool isGood_ = false;
    sem_t begin_{};  // as the SDK has them; a standard one would try for a while before it sleeps
    sem_t end_{};
    clockid_t clock_ = CLOCK_THREAD_CPUTIME_ID;
    std::jthread thread_;
};

/// Measures `times` batches of `count` exchanges at once, after `prepare`: the time and the client's
/// processor time of one exchange, in nanoseconds.
template <class Prepare>
void measure(benchmark::State& state, Client& client, int times, int count, Prepare prepare) {
    Seconds time{0};
    Seconds processorTime{0};
    bool isGood = true;
    for ([[maybe_unused]] auto _ : state) {
        prepare();
        const Seconds processorBefore = client.processorTime();
        const auto before = Clock::now();
        for (int i = 0; i < times; ++i)
            isGood = client.exchange(kClient, count) && isGood;
        const Seconds elapsed = Clock::now() - before;
        processorTime += client.processorTime() - processorBefore;
        time += elapsed;
        state.SetIterationTime(elapsed.count());
    }
    if (!isGood) return state.SkipWithError("an exchange failed");
    const double scale = 1e9 / (times * count);
    state.counters["time_ns"] = {time.count() * scale, benchmark::Counter::kAvgIterations};
    state.counters["cpu_ns"] = {processorTime.count() * scale, benchmark::Counter::kAvgIterations};
}

void registerBenchmarks(SDKClient& sdk, LibcurlClient& libcurl, HandedOverClient& handedOver) {
    const auto add = [](const std::string& name, int iterations, auto body) {
        benchmark::RegisterBenchmark(name.c_str(), body)
            ->Iterations(iterations)
            ->Repetitions(kRounds)
            ->ReportAggregatesOnly(false)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    };
    for (Client* const client : std::initializer_list<Client*>{&sdk, &libcurl, &handedOver}) {
        const std::string suffix = "/" + std::string(client->name());
        add("Exchange" + suffix, 1,
            [client](benchmark::State& state) { measure(state, *client, kExchangesPerRound, 1, [] {}); });
        if (client == &handedOver) continue;
        add("PlainExchange" + suffix, 1, [client](benchmark::State& state) {
            client->setCompressed(false);
            measure(state, *client, kExchangesPerRound, 1, [] {});
            client->setCompressed(true);
        });
        add("FreshConnection" + suffix, kConnectionsPerRound, [client](benchmark::State& state) {
            measure(state, *client, 1, 1, [client] { client->endConnections(); });
        });
    }
    for (const int count : {1, 10, 100, 1000}) {
        add("InFlight/" + std::to_string(count), 1, [&sdk, count](benchmark::State& state) {
            measure(state, sdk, std::max(kExchangesPerRound / count, 1), count, [] {});
        });
    }
}

int run(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) return EXIT_FAILURE;
    const sandbox::SandboxServer server;
    SDKClient sdk(server.baseAddress(), server.certificateAuthority());

    // The other client sends the headers that came from the SDK, but those that libcurl makes.
    const sandbox::Exchange exchange = server.exchanges().back();
    BareClient::Fields fields;
    for (const auto& [name, value] : exchange.headers) {
        if (name != "Host" && name != "Content-Length" && name != "Accept-Encoding")
            fields.emplace_back(name, value);
    }
    LibcurlClient libcurl(server.baseAddress(), server.certificateAuthority(), fields);
    HandedOverClient handedOver(libcurl);
    registerBenchmarks(sdk, libcurl, handedOver);
    benchmark::RunSpecifiedBenchmarks();
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
