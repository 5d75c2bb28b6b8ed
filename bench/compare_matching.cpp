// Address matching against liblo's lo_pattern_match, in one run over the same inputs, and our
// dispatch over an address space of 10,000 methods.
//
// Match cases: each pattern against an address it matches and one it does not (a matcher that
// is fast only on success is no good), for kavrin (OSCAddressPattern::matches, which parses the
// pattern on every call), kavrin_compiled (OSCCompiledPattern, parsed once outside the loop)
// and liblo. Dispatch cases: methods "/ch/<n>/param" for n < 10,000, delivered inline (no
// queue) to a counting block, for a literal address, "/ch/*/param" and a narrower range.
// Before any timing every matcher must give the expected answer on every case and every
// dispatch must reach the expected number of methods; otherwise the run stops.
#include <benchmark/benchmark.h>
#include <lo/lo_lowlevel.h>

#include <cstdio>
#include <string>
#include <vector>

#include "osc/pattern/OSCAddressPattern.hpp"
#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"
#include "osc/codec/OSCMessage.hpp"

namespace {

using namespace kavrin;

struct MatchCase {
    const char* name;
    const char* pattern;
    const char* address;
    bool matches;
};

// The misses fail as late as they can, in the last component.
const MatchCase matchCases[] = {
    {"MatchChGainMute", "/ch/[0-9]*/{gain,mute}", "/ch/12/gain", true},
    {"MatchChGainMuteMiss", "/ch/[0-9]*/{gain,mute}", "/ch/12/pan", false},
    {"MatchMixerFader", "/mixer/*/fader/*", "/mixer/ch12/fader/level", true},
    {"MatchMixerFaderMiss", "/mixer/*/fader/*", "/mixer/ch12/mute/level", false},
    {"MatchLiteral", "/mixer/ch/12/fader/level", "/mixer/ch/12/fader/level", true},
    {"MatchLiteralMiss", "/mixer/ch/12/fader/level", "/mixer/ch/12/fader/lever", false},
};

constexpr int methodCount = 10000;

struct DispatchCase {
    const char* name;
    const char* address;
    std::size_t calls;
};

const DispatchCase dispatchCases[] = {
    {"DispatchLiteral10k", "/ch/5000/param", 1},
    {"DispatchStar10k", "/ch/*/param", methodCount},
    {"DispatchRange10k", "/ch/1[0-9]/param", 10},
};

// The methods and a count of the calls their blocks receive.
struct Space {
    OSCAddressSpace space;
    std::size_t calls = 0;

    Space() {
        for (int n = 0; n < methodCount; ++n) {
            space.registerMethod("/ch/" + std::to_string(n) + "/param",
                                 [this](const auto&) { ++calls; });
        }
    }
};

bool everyoneAgrees() {
    bool agree = true;
    for (const auto& c : matchCases) {
        const OSCAddressPattern pattern(c.pattern);
        const bool answers[] = {pattern.matches(c.address),
                                OSCCompiledPattern(pattern).matches(c.address),
                                lo_pattern_match(c.address, c.pattern) != 0};
        const char* names[] = {"kavrin", "kavrin_compiled", "liblo"};
        for (std::size_t i = 0; i < 3; ++i) {
            if (answers[i] != c.matches) {
                std::fprintf(stderr, "%s/%s: \"%s\" against \"%s\" gave %d, expected %d\n", c.name,
                             names[i], c.pattern, c.address, answers[i], c.matches);
                agree = false;
            }
        }
    }
    Space space;
    for (const auto& c : dispatchCases) {
        space.calls = 0;
        const auto ids = space.space.dispatch(OSCMessage(c.address));
        if (ids.size() != c.calls || space.calls != c.calls) {
            std::fprintf(stderr, "%s: \"%s\" found %zu methods and made %zu calls, expected %zu\n",
                         c.name, c.address, ids.size(), space.calls, c.calls);
            agree = false;
        }
    }
    return agree;
}

void matchKavrin(benchmark::State& state, const MatchCase* c) {
    const OSCAddressPattern pattern(c->pattern);
    const std::string address(c->address);
    for (auto _ : state) benchmark::DoNotOptimize(pattern.matches(address));
}

void matchCompiled(benchmark::State& state, const MatchCase* c) {
    const OSCCompiledPattern pattern{OSCAddressPattern(c->pattern)};
    const std::string address(c->address);
    for (auto _ : state) benchmark::DoNotOptimize(pattern.matches(address));
}

void matchLiblo(benchmark::State& state, const MatchCase* c) {
    const std::string pattern(c->pattern);
    const std::string address(c->address);
    for (auto _ : state) {
        benchmark::DoNotOptimize(lo_pattern_match(address.c_str(), pattern.c_str()));
    }
}

void dispatchKavrin(benchmark::State& state, const DispatchCase* c) {
    Space space;
    const OSCMessage message(c->address);
    for (auto _ : state) benchmark::DoNotOptimize(space.space.dispatch(message));
    state.counters["calls/dispatch"] =
        static_cast<double>(space.calls) / static_cast<double>(state.iterations());
}

void registerBenchmarks() {
    for (const auto& c : matchCases) {
        const std::string name = std::string(c.name) + "/";
        benchmark::RegisterBenchmark((name + "kavrin").c_str(), matchKavrin, &c);
        benchmark::RegisterBenchmark((name + "kavrin_compiled").c_str(), matchCompiled, &c);
        benchmark::RegisterBenchmark((name + "liblo").c_str(), matchLiblo, &c);
    }
    for (const auto& c : dispatchCases) {
        benchmark::RegisterBenchmark((std::string(c.name) + "/kavrin").c_str(), dispatchKavrin, &c);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!everyoneAgrees()) {
        std::fprintf(stderr, "The matchers disagree; nothing was measured.\n");
        return 1;
    }
    registerBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
