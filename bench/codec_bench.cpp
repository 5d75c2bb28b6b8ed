// Encoding and decoding of typical OSC traffic.
#include <benchmark/benchmark.h>

#include <string>

#include "osc/codec/OSCPacket.hpp"

namespace {

using namespace kavrin;

// "/mixer/ch/12/fader/level" i 12, f 0.75, s "main": 52 bytes.
OSCMessage typicalMessage() {
    return OSCMessage("/mixer/ch/12/fader/level", {12, 0.75f, std::string("main")});
}

// i f s h d T F N b(16 bytes) s
OSCMessage tenArgumentMessage() {
    return OSCMessage("/synth/voice/3/params",
                      {7, 0.5f, std::string("sine"), std::int64_t{1} << 40, 440.0, true, false,
                       OSCNullValue{}, OSCBlob(std::vector<std::uint8_t>(16, 0xAB)), std::string("release")});
}

OSCBundle typicalBundle() {
    return OSCBundle(OSCTimeTag::immediate(),
                     {typicalMessage(), typicalMessage(), typicalMessage()});
}

template <class Packet>
void encode(benchmark::State& state, const Packet& packet) {
    for (auto _ : state) {
        auto bytes = packet.rawData();
        benchmark::DoNotOptimize(bytes.data());
    }
}

template <class Decode>
void decode(benchmark::State& state, const std::vector<std::uint8_t>& bytes, Decode decodeBytes) {
    for (auto _ : state) {
        auto packet = decodeBytes(bytes);
        benchmark::DoNotOptimize(&packet);
    }
}

void EncodeTypical(benchmark::State& state) {
    encode(state, typicalMessage());
}
void DecodeTypical(benchmark::State& state) {
    decode(state, typicalMessage().rawData(), [](const auto& b) { return OSCMessage::decode(b); });
}
void EncodeTenArguments(benchmark::State& state) {
    encode(state, tenArgumentMessage());
}
void DecodeTenArguments(benchmark::State& state) {
    decode(state, tenArgumentMessage().rawData(),
           [](const auto& b) { return OSCMessage::decode(b); });
}
void EncodeBundle(benchmark::State& state) {
    encode(state, typicalBundle());
}
void DecodeBundle(benchmark::State& state) {
    decode(state, typicalBundle().rawData(), [](const auto& b) { return OSCBundle::decode(b); });
}
void DecodePacketTypical(benchmark::State& state) {
    decode(state, typicalMessage().rawData(), [](const auto& b) { return OSCPacket::decode(b); });
}

}  // namespace

BENCHMARK(EncodeTypical);
BENCHMARK(DecodeTypical);
BENCHMARK(DecodePacketTypical);
BENCHMARK(EncodeTenArguments);
BENCHMARK(DecodeTenArguments);
BENCHMARK(EncodeBundle);
BENCHMARK(DecodeBundle);

BENCHMARK_MAIN();
