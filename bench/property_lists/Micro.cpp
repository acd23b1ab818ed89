// How fast property lists are read, written and looked into, for work on the code itself.
#include <benchmark/benchmark.h>

#include "Records.h"

namespace korvane {
namespace {

void parse(benchmark::State& state) {
    const std::string text = formatPropertyList(records(static_cast<int>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(parsePropertyList(text));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(parse)->Arg(100)->Arg(1000)->Arg(10'000);

void format(benchmark::State& state) {
    const PropertyList value = records(static_cast<int>(state.range(0)));
    std::int64_t bytes = 0;
    for (auto _ : state) {
        const std::string text = formatPropertyList(value);
        bytes += static_cast<std::int64_t>(text.size());
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(bytes);
}
BENCHMARK(format)->Arg(100)->Arg(1000)->Arg(10'000);

void copy(benchmark::State& state) {
    const PropertyList value = records(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(PropertyList(value));
}
BENCHMARK(copy)->Arg(1000);

void find(benchmark::State& state) {
    const PropertyList value = records(static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(value.dictionary()->find("System_7"));
}
BENCHMARK(find)->Arg(1000);

}  // namespace
}  // namespace korvane
