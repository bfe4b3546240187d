// Unloading: child processes that load a shared library which links the SDK, have it make a request, and
// unload it: after the answer, with the request in flight, and with the resolver hanging.
//
//     zembra-lab-unload [<children, 200 unless given>]
//
// Loopback only, a minute or so. The children have the address, its authority's PEM text, whether the request
// is waited for, and the microseconds until the unloading as arguments.

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <string>
#include <thread>

#include <dlfcn.h>

#include "Children.h"
#include "support/HangingResolver.h"

using namespace zembra;
using namespace std::chrono_literals;

int main(int count, char** arguments) {
    if (count == 5) {
        void* const library = ::dlopen(ZEMBRA_LAB_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        if (!library) return 1;
        const auto makeRequest =
            reinterpret_cast<void (*)(const char*, const char*, bool)>(::dlsym(library, "makeRequest"));
        if (!makeRequest) return 1;
        makeRequest(arguments[1], arguments[2], arguments[3] == std::string_view("waits"));
        std::this_thread::sleep_for(std::chrono::microseconds(std::atoi(arguments[4])));
        if (::dlclose(library) != 0) return 1;
        std::this_thread::sleep_for(30ms);  // for a thread to run into code that is gone
        return 0;
    }

    const int children = count > 1 ? std::atoi(arguments[1]) : 200;
    const test::TLSServer answering;
    const test::TLSServer silent(&test::Connection::stall);
    const struct {
        const char* way;
        std::string address;
        const char* waits;
    } kWays[] = {
        {"after the answer", answering.address(), "waits"},
        {"with a request in flight", silent.address(), "leaves"},
        {"with a hanging resolver", "https://" + std::string(test::kHangingHost) + "/", "leaves"},
    };
    lab::Tally tally;
    for (int child = 0; child < children; ++child) {
        const auto& [way, address, waits] = kWays[static_cast<std::size_t>(child) % std::size(kWays)];
        const std::string delay = std::to_string(child * 200);
        tally.add(
            way, "after " + delay + " µs",
            lab::run({"/proc/self/exe", address, test::TLSServer::certificateAuthority(), waits, delay}));
    }
    return tally.print();
}
