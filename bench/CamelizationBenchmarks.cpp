// Camelizing keys beside copying the same strings.

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <ZembraCoreSDK/QVDataObject.h>

namespace {

/// Words of three to eight letters joined by underscores, the same at every call.
std::vector<std::string> keysOfLength(std::size_t length) {
    std::mt19937 random(7);
    std::vector<std::string> keys(1'000);
    for (std::string& key : keys) {
        std::size_t word = 3 + random() % 6;
        while (key.size() < length) {
            const bool isSeparator = word == 0 && key.size() + 2 < length;
            key += isSeparator ? '_' : static_cast<char>('a' + random() % 26);
            word = word == 0 ? 3 + random() % 6 : word - 1;
        }
    }
    return keys;
}

template <class Operation>
void run(benchmark::State& state, Operation operation) {
    const std::vector<std::string> keys = keysOfLength(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        for (const std::string& key : keys)
            benchmark::DoNotOptimize(operation(key));
    state.SetItemsProcessed(
        static_cast<std::int64_t>(static_cast<std::size_t>(state.iterations()) * keys.size()));
}

void camelize(benchmark::State& state) {
    run(state, [](const std::string& key) { return zembra::camelizedString(key); });
}

void copy(benchmark::State& state) {
    run(state, [](const std::string& key) { return std::string(key); });
}

void addLengths(benchmark::internal::Benchmark* benchmark) {
    for (const std::int64_t length : {8, 14, 20, 32})
        benchmark->Arg(length);
    benchmark->Repetitions(9)->MinTime(0.05);
}
BENCHMARK(camelize)->Name("keys/camelizedString")->Apply(addLengths);
BENCHMARK(copy)->Name("keys/copy of the string")->Apply(addLengths);

}  // namespace

BENCHMARK_MAIN();
