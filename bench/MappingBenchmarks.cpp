// From the text of place records to objects: this SDK beside other libraries. Names are
// <work>/<peer>/<records>; all peers of a work have the same text. `scripts/bench` gives each a process of
// its own: what one leaves of the heap is nothing to the next.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

#include <benchmark/benchmark.h>

#include "MappingPeers.h"

namespace bench {
namespace {

/// Made once for each kind.
const std::string& textOf(std::size_t count, KeyOrder order, MissingKeys missing) {
    static std::map<std::tuple<std::size_t, KeyOrder, MissingKeys>, std::string> texts;
    std::string& text = texts[{count, order, missing}];
    if (text.empty()) text = placeRecords(count, order, missing);
    return text;
}

template <class Peer>
void map(benchmark::State& state, KeyOrder order, MissingKeys missing) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const std::string& text = textOf(count, order, missing);
    std::string given;
    for (auto _ : state) {
        state.PauseTiming();
        given.reserve(text.size() + kSpareCapacity);
        given = text;
        state.ResumeTiming();
        benchmark::DoNotOptimize(Peer::map(given));
    }
    state.SetBytesProcessed(
        static_cast<std::int64_t>(static_cast<std::size_t>(state.iterations()) * text.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(static_cast<std::size_t>(state.iterations()) * count));
}

template <class Peer>
void add(const char* work, const char* peer, std::initializer_list<std::int64_t> counts,
         KeyOrder order = KeyOrder::fixed, MissingKeys missing = MissingKeys::none) {
    for (const std::int64_t count : counts) {
        benchmark::RegisterBenchmark(
            (std::string(work) + '/' + peer).c_str(),
            [order, missing](benchmark::State& state) { map<Peer>(state, order, missing); })
            ->Unit(benchmark::kMicrosecond)
            ->Arg(count);
    }
}

template <class Peer>
Summary summaryBy(const std::string& text) {
    std::string given;
    given.reserve(text.size() + kSpareCapacity);
    given = text;
    return Peer::summaryOf(given);
}

template <class Peer>
void check(const char* peer, const std::string& text, const Summary& expected) {
    if (summaryBy<Peer>(text) == expected) return;
    std::fprintf(stderr, "%s maps the records to something else\n", peer);
    std::exit(1);
}

void checkThatPeersAgree() {
    const std::string text = placeRecords(500);
    const Summary expected = summaryBy<NlohmannJSON>(text);
    check<Zembra>("ZembraCoreSDK", text, expected);
    check<ZembraArray>("ZembraCoreSDK, array first", text, expected);
    check<SimdjsonDOM>("simdjson DOM", text, expected);
    check<SimdjsonOnDemand>("simdjson On-Demand", text, expected);
    check<BoostJSON>("Boost.JSON", text, expected);
    check<RapidJSON>("RapidJSON", text, expected);
    for (const MissingKeys missing : {MissingKeys::none, MissingKeys::some}) {
        const std::string other = placeRecords(500, KeyOrder::shuffled, missing);
        check<Zembra>("ZembraCoreSDK", other, summaryBy<SimdjsonDOM>(other));
    }
}

void addAll() {
    add<Zembra>("map", "ZembraCoreSDK", {20, 10'000});
    add<ZembraArray>("map", "ZembraCoreSDK, array first", {20, 10'000});
    add<SimdjsonOnDemand>("map", "simdjson On-Demand, by hand", {20, 10'000});
    add<SimdjsonDOM>("map", "simdjson DOM, by hand", {20, 10'000});
    add<RapidJSON>("map", "RapidJSON, by hand", {20, 10'000});
    add<BoostJSON>("map", "Boost.JSON value_to", {20, 10'000});
    add<NlohmannJSON>("map", "nlohmann/json get", {20, 10'000});

    add<Zembra>("shuffled keys", "ZembraCoreSDK", {10'000}, KeyOrder::shuffled);
    add<SimdjsonDOM>("shuffled keys", "simdjson DOM, by hand", {10'000}, KeyOrder::shuffled);
}

}  // namespace
}  // namespace bench

int main(int argumentCount, char** arguments) {
    benchmark::Initialize(&argumentCount, arguments);
    if (benchmark::ReportUnrecognizedArguments(argumentCount, arguments)) return 1;
    bench::checkThatPeersAgree();
    bench::addAll();
    benchmark::RunSpecifiedBenchmarks();
}
