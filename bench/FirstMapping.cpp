// zembra-first-mapping <peer> <count>: maps that many place records once, in a process of its own that has
// no memory left from before, and prints the processor time in nanoseconds and the peak of its memory above
// what it held (the text included) in MiB. Without arguments, lists the peers.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "MappingPeers.h"

namespace bench {
namespace {

struct Peer {
    const char* name;
    std::size_t (*map)(std::string& text);
};

constexpr Peer kPeers[] = {
    {"ZembraCoreSDK", Zembra::map},
    {"ZembraCoreSDK, array first", ZembraArray::map},
    {"simdjson On-Demand, by hand", SimdjsonOnDemand::map},
    {"simdjson DOM, by hand", SimdjsonDOM::map},
    {"RapidJSON, by hand", RapidJSON::map},
    {"Boost.JSON value_to", BoostJSON::map},
    {"nlohmann/json get", NlohmannJSON::map},
};

/// A line of the process's status, in MiB.
double statusLine(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name + ':')) return std::stod(line.substr(name.size() + 1)) / 1024;
    return 0;
}

double processorTime() {
    timespec time{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

int measure(const Peer& peer, std::size_t count) {
    std::string text = placeRecords(count);
    std::string few = placeRecords(10);
    (void)peer.map(few);                          // loads and makes what is needed once
    std::ofstream("/proc/self/clear_refs") << 5;  // the peak starts anew
    const double heldBefore = statusLine("VmRSS");
    const double start = processorTime();
    if (peer.map(text) != count) return 1;
    const double end = processorTime();
    std::printf("%.0f %.1f\n", end - start, statusLine("VmHWM") - heldBefore);
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argumentCount, char** arguments) {
    for (const bench::Peer& peer : bench::kPeers) {
        if (argumentCount < 3)
            std::puts(peer.name);
        else if (std::strcmp(arguments[1], peer.name) == 0)
            return bench::measure(peer, std::strtoul(arguments[2], nullptr, 10));
    }
    return argumentCount < 3 ? 0 : 2;
}
