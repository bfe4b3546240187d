// zembra-mapping-memory <peer>: maps 10,000 place records once, in a process of its own, and prints the peak
// of its memory above what it held before (the text included), in MiB. Without a peer, lists the peers.

#include <cstdio>
#include <cstring>
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

int measure(const Peer& peer) {
    std::string text = placeRecords(10'000);
    std::string few = placeRecords(10);
    (void)peer.map(few);                          // loads and makes what is needed once
    std::ofstream("/proc/self/clear_refs") << 5;  // the peak starts anew
    const double before = statusLine("VmRSS");
    if (peer.map(text) != 10'000) return 1;
    std::printf("%.1f\n", statusLine("VmHWM") - before);
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argumentCount, char** arguments) {
    for (const bench::Peer& peer : bench::kPeers) {
        if (argumentCount < 2)
            std::puts(peer.name);
        else if (std::strcmp(arguments[1], peer.name) == 0)
            return bench::measure(peer);
    }
    return argumentCount < 2 ? 0 : 2;
}
