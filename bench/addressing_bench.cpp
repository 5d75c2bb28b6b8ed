// Matches per second for typical and pathological patterns, parsed per call (the specified
// OSCAddressPattern::matches) and parsed once (OSCCompiledPattern), and dispatch over a space
// of 10,000 methods. Run with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true.
#include <benchmark/benchmark.h>

#include <string>

#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"
#include "osc/codec/OSCMessage.hpp"

namespace {

using kavrin::OSCAddressPattern;
using kavrin::OSCAddressSpace;
using kavrin::OSCCompiledPattern;

struct Case {
    const char* pattern;
    std::string address;
};

const Case cases[] = {
    {"/eos/out/ping", "/eos/out/ping"},
    {"/eos/*/ping", "/eos/out/ping"},
    {"/ch/[0-9]*/{gain,mute}", "/ch/12/gain"},
    {"/mixer/*/fader/*", "/mixer/ch12/fader/level"},
    {"/*a*a*a*a*a*b", "/" + std::string(64, 'a')},
};

void matches(benchmark::State& state) {
    const Case& c = cases[state.range(0)];
    const OSCAddressPattern pattern(c.pattern);
    for (auto _ : state) benchmark::DoNotOptimize(pattern.matches(c.address));
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(std::string(c.pattern) + " ~ " + c.address.substr(0, 24));
}

void compiledMatches(benchmark::State& state) {
    const Case& c = cases[state.range(0)];
    const OSCCompiledPattern pattern{OSCAddressPattern(c.pattern)};
    for (auto _ : state) benchmark::DoNotOptimize(pattern.matches(c.address));
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(std::string(c.pattern) + " ~ " + c.address.substr(0, 24));
}

BENCHMARK(matches)->DenseRange(0, 4);
BENCHMARK(compiledMatches)->DenseRange(0, 4);

// 10,000 methods /ch/N/param; dispatched inline to a block that counts.
void dispatch(benchmark::State& state, const char* address) {
    OSCAddressSpace space;
    std::size_t calls = 0;
    for (int n = 0; n < 10000; ++n) {
        space.registerMethod("/ch/" + std::to_string(n) + "/param",
                             [&calls](const auto&) { ++calls; });
    }
    const kavrin::OSCMessage message(OSCAddressPattern(address), {});
    for (auto _ : state) benchmark::DoNotOptimize(space.dispatch(message));
    state.SetItemsProcessed(state.iterations());
    state.counters["calls/dispatch"] =
        static_cast<double>(calls) / static_cast<double>(state.iterations());
}

BENCHMARK_CAPTURE(dispatch, literal, "/ch/5000/param");
BENCHMARK_CAPTURE(dispatch, oneStar, "/ch/*/param");
BENCHMARK_CAPTURE(dispatch, range, "/ch/1[0-9]/param");

}  // namespace

BENCHMARK_MAIN();
