// Exits: child processes that leave while the HTTP client is at work, in each way that a host can.
//
//     zembra-lab-exits [<exits of each way, 125 unless given>]
//
// Loopback only, a minute or so. The children have the way, their delay in microseconds, the server's address
// and its authority's PEM text as arguments.

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <ZembraPlatform/AFHTTPSessionManager.h>
#include <ZembraPlatform/MainQueue.h>
#include <ZembraPlatform/NSJSONSerialization.h>

#include "Children.h"

using namespace zembra;
using namespace std::chrono_literals;

namespace {

/// The child's arguments, never destroyed: threads use them to the end.
const std::vector<std::string>* given = nullptr;

std::unique_ptr<AFHTTPSessionManager> newClient() {
    auto client = std::make_unique<AFHTTPSessionManager>(NSURL::URLWithString((*given)[3]));
    client->addTrustedCertificateAuthority((*given)[4]);
    return client;
}

void request(AFHTTPSessionManager& client) {
    client.POST("token", {}, nullptr, nullptr, nullptr);
}

/// A client with eight requests under way, left to itself.
AFHTTPSessionManager& busyClient() {
    AFHTTPSessionManager& client = *newClient().release();
    for (int count = 0; count < 8; ++count)
        request(client);
    return client;
}

/// Does something when static objects are destroyed.
struct AtDestruction {
    std::function<void()> act;
    ~AtDestruction() {
        if (act) act();
    }
};

AtDestruction lateObject;

/// What a thread does beside a process that leaves; it is not waited for.
void beside(std::function<void()> act) {
    std::thread(std::move(act)).detach();
}

/// Each way starts something; a moment later the process exits from `main`, unless the way did so before.
const std::map<std::string, std::function<void()>> kWays = {
    {"requests in flight", [] { busyClient(); }},
    {"answers in flight",
     [] {
         AFHTTPSessionManager& client = *newClient().release();
         for (int count = 0; count < 40; ++count)
             client.POST("answer", {}, nullptr, nullptr, nullptr);
     }},
    {"a static destructor decodes JSON",
     [] {
         lateObject.act = [] { (void)NSJSONSerialization::JSONObjectWithData("[1]"); };
         lateObject.act();
     }},
    {"a client that static destruction ends",
     [] { static const std::unique_ptr<AFHTTPSessionManager> client(&busyClient()); }},
    {"from a callback on the I/O thread",
     [] {
         AFHTTPSessionManager& client = *newClient().release();
         client.setCompletionQueue([](const auto& task) { task(); });
         client.POST(
             "answer", {}, nullptr, [](auto&&...) { std::exit(0); }, nullptr);
         std::this_thread::sleep_for(lab::kLimit);
     }},
    {"while a callback keeps the I/O thread",
     [] {
         static auto& called = *new std::promise<void>;  // never destroyed: nobody waits for the thread
         AFHTTPSessionManager& client = *newClient().release();
         client.setCompletionQueue([](const auto& task) { task(); });
         client.POST(
             "answer", {}, nullptr,
             [](auto&&...) {
                 called.set_value();
                 std::this_thread::sleep_for(2 * lab::kLimit);
             },
             nullptr);
         called.get_future().wait();
     }},
    {"a static destructor makes the first client", [] { lateObject.act = [] { busyClient(); }; }},
    {"a static destructor makes a client",
     [] {
         lateObject.act = [] { busyClient(); };
         busyClient();
     }},
    {"a static destructor waits for an answer",
     [] {
         lateObject.act = [] {
             busyClient();
             MainQueue::shared().runFor(50ms);
         };
         busyClient();
     }},
    {"a thread makes clients all along",
     [] {
         beside([] {
             while (true) {
                 const auto client = newClient();
                 request(*client);
             }
         });
     }},
    {"a second client's first request",
     [] {
         lateObject.act = [] {
             beside([] { busyClient(); });
             std::this_thread::sleep_for(5ms);
         };
         busyClient();
     }},
};

}  // namespace

int main(int count, char** arguments) {
    given = new std::vector<std::string>(arguments, arguments + count);
    if (count == 5) {
        kWays.at((*given)[1])();
        std::this_thread::sleep_for(std::chrono::microseconds(std::stoi((*given)[2])));
        return 0;
    }

    const int exits = count > 1 ? std::stoi((*given)[1]) : 125;
    constexpr int kLatest = 60'000;  // microseconds: from the start of the thread to the silence after TLS
    const test::TLSServer server([](test::Connection& connection) {
        if (connection.readRequest().starts_with("POST /answer")) connection.answer();
        connection.hold();
    });
    lab::Tally tally;
    for (int exit = 0; exit < exits; ++exit) {
        const std::string delay = std::to_string(exit * kLatest / exits);
        for (const auto& [way, act] : kWays)
            tally.add(way, "after " + delay + " µs",
                      lab::run({"/proc/self/exe", way, delay, server.address(),
                                test::TLSServer::certificateAuthority()}));
    }
    return tally.print();
}
