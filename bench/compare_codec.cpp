// Encoding and decoding against liblo and oscpack, in one run over the same inputs.
//
// Cases: Typical ("/mixer/ch/12/fader/level" i 12, f 0.75, s "main": 52 bytes), TenArgs
// (i f s h d T F N b s) and Bundle3 (three typical messages, immediate time tag).
// Encode, from values (kavrin, liblo, oscpack): every iteration builds the case from its values
// in each library's own form (our OSCMessage/OSCBundle, liblo's lo_message/lo_bundle, oscpack's
// stream) and encodes it into a buffer kept across iterations; kavrin_rawdata encodes ours with
// rawData() instead, which returns a new vector each time; kavrin_writer writes the same values
// into a caller's buffer through OSCPacketWriter, as oscpack does. Encode, prebuilt
// (kavrin_prebuilt, liblo_prebuilt): only the encoding, into a kept buffer, of a form built
// before the loop; oscpack has none. Decode: from bytes to every argument read into a sum, so
// that no decoder can skip work; kavrin copies the bytes first (OSCPacket::decode of a span),
// kavrin_shared decodes a shared buffer it is handed, as a receiver holding the datagram does.
// Before any timing, every encoder must produce the same bytes for each case and every decoder
// read the same values back from them; otherwise the run stops. owning_floor is no decoder: it
// makes the copy and values a decode into OSCPacket from a span cannot avoid, the lower bound
// for the kavrin decode figure.
#include <benchmark/benchmark.h>
#include <lo/lo.h>
#include <lo/lo_lowlevel.h>
#include <osc/OscOutboundPacketStream.h>
#include <osc/OscReceivedElements.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCPacketWriter.hpp"

namespace {

using namespace kavrin;
using Bytes = std::vector<std::uint8_t>;

constexpr const char* typicalAddress = "/mixer/ch/12/fader/level";
constexpr const char* tenArgsAddress = "/synth/voice/3/params";
constexpr std::int64_t tenArgsInt64 = std::int64_t{1} << 40;

const std::uint8_t* blobData() {
    static const auto data = [] {
        std::array<std::uint8_t, 16> bytes{};
        for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 17);
        return bytes;
    }();
    return data.data();
}

// MARK: Reading arguments

// Every decoder hands each argument to a sink: SumSink for timing, RecordSink for the check.
struct SumSink {
    std::uint64_t sum = 0;
    void address(std::string_view text) { sum += text.size(); }
    void int32(std::int32_t v) { sum += static_cast<std::uint32_t>(v); }
    void float32(float v) { sum += std::bit_cast<std::uint32_t>(v); }
    void string(std::string_view text) { sum += text.size(); }
    void blob(const void* data, std::size_t size) {
        sum += size + static_cast<const std::uint8_t*>(data)[size - 1];
    }
    void int64(std::int64_t v) { sum += static_cast<std::uint64_t>(v); }
    void float64(double v) { sum += std::bit_cast<std::uint64_t>(v); }
    void boolean(bool v) { sum += v ? 3 : 5; }
    void nil() { sum += 7; }
};

struct RecordSink {
    std::vector<std::string> items;
    void add(std::string item) { items.push_back(std::move(item)); }
    void address(std::string_view text) { add("address " + std::string(text)); }
    void int32(std::int32_t v) { add("i " + std::to_string(v)); }
    void float32(float v) { add("f " + std::to_string(std::bit_cast<std::uint32_t>(v))); }
    void string(std::string_view text) { add("s " + std::string(text)); }
    void blob(const void* data, std::size_t size) {
        std::ostringstream text;
        text << "b";
        for (std::size_t i = 0; i < size; ++i) {
            text << ' ' << std::hex << int(static_cast<const std::uint8_t*>(data)[i]);
        }
        add(text.str());
    }
    void int64(std::int64_t v) { add("h " + std::to_string(v)); }
    void float64(double v) { add("d " + std::to_string(std::bit_cast<std::uint64_t>(v))); }
    void boolean(bool v) { add(v ? "T" : "F"); }
    void nil() { add("N"); }
};

// Ours, owning: OSCPacket::decode, then the values.
template <class Sink>
void readKavrinMessage(const OSCMessage& message, Sink& sink) {
    sink.address(message.addressPattern.rawAddress());
    for (const auto& value : message.values) {
        switch (kindOf(value)) {
            case OSCValueKind::int32:
                sink.int32(std::get<std::int32_t>(value));
                break;
            case OSCValueKind::float32:
                sink.float32(std::get<float>(value));
                break;
            case OSCValueKind::string:
                sink.string(std::get<OSCString>(value));
                break;
            case OSCValueKind::blob: {
                const auto& blob = std::get<OSCBlob>(value);
                sink.blob(blob.data(), blob.size());
                break;
            }
            case OSCValueKind::int64:
                sink.int64(std::get<std::int64_t>(value));
                break;
            case OSCValueKind::float64:
                sink.float64(std::get<double>(value));
                break;
            case OSCValueKind::boolean:
                sink.boolean(std::get<bool>(value));
                break;
            case OSCValueKind::null:
                sink.nil();
                break;
            default:
                throw std::runtime_error("unexpected value kind");
        }
    }
}

template <class Sink>
void readKavrinPacket(const OSCPacket& packet, Sink& sink) {
    if (const auto* message = std::get_if<OSCMessage>(&packet.base())) {
        readKavrinMessage(*message, sink);
    } else {
        for (const auto& element : std::get<OSCBundle>(packet.base()).elements) {
            readKavrinMessage(std::get<OSCMessage>(element.base()), sink);
        }
    }
}

template <class Sink>
void decodeKavrin(const Bytes& bytes, Sink& sink) {
    readKavrinPacket(*OSCPacket::decode(bytes), sink);
}

// The datagram in a shared buffer, as a receiver would hold it; the packet keeps it.
std::shared_ptr<const std::uint8_t[]> sharedCopy(const Bytes& bytes) {
    auto buffer = std::make_shared_for_overwrite<std::uint8_t[]>(bytes.size());
    std::memcpy(buffer.get(), bytes.data(), bytes.size());
    return buffer;
}

template <class Sink>
void decodeKavrinShared(const std::shared_ptr<const std::uint8_t[]>& buffer, std::size_t size,
                        Sink& sink) {
    readKavrinPacket(*OSCPacket::decode(buffer, size), sink);
}

// Ours, in place: OSCPacketView::decode, then the arguments.
template <class Sink>
void readViewMessage(const OSCMessageView& message, Sink& sink) {
    sink.address(message.address());
    for (const auto argument : message) {
        switch (argument.tag()) {
            case 'i':
                sink.int32(argument.int32());
                break;
            case 'f':
                sink.float32(argument.float32());
                break;
            case 's':
                sink.string(argument.string());
                break;
            case 'b': {
                const auto blob = argument.blob();
                sink.blob(blob.data(), blob.size());
                break;
            }
            case 'h':
                sink.int64(argument.int64());
                break;
            case 'd':
                sink.float64(argument.float64());
                break;
            case 'T':
            case 'F':
                sink.boolean(argument.boolean());
                break;
            case 'N':
                sink.nil();
                break;
            default:
                throw std::runtime_error("unexpected tag");
        }
    }
}

template <class Sink>
void decodeView(const Bytes& bytes, Sink& sink) {
    const auto packet = OSCPacketView::decode(bytes);
    if (packet->isMessage()) {
        readViewMessage(packet->message(), sink);
    } else {
        for (const auto element : packet->bundle()) readViewMessage(element.message(), sink);
    }
}

// liblo: lo_message_deserialise per message (it has no bundle reader of its own, so the bundle's
// size words are walked by hand), then the typed argument list.
template <class Sink>
void readLoMessage(const std::uint8_t* data, std::size_t size, Sink& sink) {
    int result = 0;
    auto* bytes = const_cast<std::uint8_t*>(data);
    lo_message message = lo_message_deserialise(bytes, size, &result);
    if (message == nullptr) throw std::runtime_error("liblo refused the message");
    sink.address(lo_get_path(bytes, static_cast<ssize_t>(size)));
    const char* types = lo_message_get_types(message);
    lo_arg** argv = lo_message_get_argv(message);
    const int argc = lo_message_get_argc(message);
    for (int i = 0; i < argc; ++i) {
        switch (types[i]) {
            case 'i':
                sink.int32(argv[i]->i);
                break;
            case 'f':
                sink.float32(argv[i]->f);
                break;
            case 's':
                sink.string(&argv[i]->s);
                break;
            case 'b': {
                auto blob = reinterpret_cast<lo_blob>(argv[i]);
                sink.blob(lo_blob_dataptr(blob), lo_blob_datasize(blob));
                break;
            }
            case 'h':
                sink.int64(argv[i]->h);
                break;
            case 'd':
                sink.float64(argv[i]->d);
                break;
            case 'T':
                sink.boolean(true);
                break;
            case 'F':
                sink.boolean(false);
                break;
            case 'N':
                sink.nil();
                break;
            default:
                throw std::runtime_error("unexpected tag");
        }
    }
    lo_message_free(message);
}

template <class Sink>
void decodeLiblo(const Bytes& bytes, Sink& sink) {
    if (bytes.size() >= 16 && std::memcmp(bytes.data(), "#bundle", 8) == 0) {
        for (std::size_t offset = 16; offset + 4 <= bytes.size();) {
            std::uint32_t size;
            std::memcpy(&size, bytes.data() + offset, 4);
            size = __builtin_bswap32(size);
            readLoMessage(bytes.data() + offset + 4, size, sink);
            offset += 4 + size;
        }
    } else {
        readLoMessage(bytes.data(), bytes.size(), sink);
    }
}

// oscpack: ReceivedPacket, ReceivedBundle and ReceivedMessage (which check the bytes when made),
// then the unchecked typed reads.
template <class Sink>
void readOscpackMessage(const osc::ReceivedMessage& message, Sink& sink) {
    sink.address(message.AddressPattern());
    for (auto it = message.ArgumentsBegin(); it != message.ArgumentsEnd(); ++it) {
        switch (it->TypeTag()) {
            case 'i':
                sink.int32(it->AsInt32Unchecked());
                break;
            case 'f':
                sink.float32(it->AsFloatUnchecked());
                break;
            case 's':
                sink.string(it->AsStringUnchecked());
                break;
            case 'b': {
                const void* data = nullptr;
                osc::osc_bundle_element_size_t size = 0;
                it->AsBlobUnchecked(data, size);
                sink.blob(data, static_cast<std::size_t>(size));
                break;
            }
            case 'h':
                sink.int64(it->AsInt64Unchecked());
                break;
            case 'd':
                sink.float64(it->AsDoubleUnchecked());
                break;
            case 'T':
                sink.boolean(true);
                break;
            case 'F':
                sink.boolean(false);
                break;
            case 'N':
                sink.nil();
                break;
            default:
                throw std::runtime_error("unexpected tag");
        }
    }
}

template <class Sink>
void decodeOscpack(const Bytes& bytes, Sink& sink) {
    const osc::ReceivedPacket packet(reinterpret_cast<const char*>(bytes.data()),
                                     static_cast<osc::osc_bundle_element_size_t>(bytes.size()));
    if (packet.IsBundle()) {
        const osc::ReceivedBundle bundle(packet);
        for (auto it = bundle.ElementsBegin(); it != bundle.ElementsEnd(); ++it) {
            readOscpackMessage(osc::ReceivedMessage(*it), sink);
        }
    } else {
        readOscpackMessage(osc::ReceivedMessage(packet), sink);
    }
}

// MARK: Cases

// Each library builds a case from the same values the way its users do: ours as OSCMessage and
// OSCBundle, liblo as lo_message and lo_bundle, oscpack by streaming the values into a buffer.

// Ours with the values made in place, the way docs/library.md shows building a message.
OSCMessage typicalMessage() {
    return OSCMessage(typicalAddress, 12, 0.75f, "main");
}

OSCMessage tenArgsMessage() {
    return OSCMessage(tenArgsAddress, 7, 0.5f, "sine", tenArgsInt64, 440.0, true, false,
                      OSCNullValue{}, OSCBlob(blobData(), blobData() + 16), "release");
}

// The messages are made in place in the bundle: an initializer list would copy each one.
OSCBundle bundle3() {
    OSCBundle bundle(OSCTimeTag::immediate());
    bundle.elements.reserve(3);
    for (int i = 0; i < 3; ++i) {
        bundle.elements.emplace_back(std::in_place_type<OSCMessage>, typicalAddress, 12, 0.75f,
                                     "main");
    }
    return bundle;
}

// A liblo message or bundle, with the blob it was given, if any. liblo serialises without a
// bound on the output: every buffer given here is known to hold these cases.
struct LoPacket {
    lo_message message = nullptr;
    const char* address = nullptr;
    lo_bundle bundle = nullptr;
    lo_blob blob = nullptr;

    std::size_t serialise(std::uint8_t* out) const {
        std::size_t size = 0;
        if (message) {
            lo_message_serialise(message, address, out, &size);
        } else {
            lo_bundle_serialise(bundle, out, &size);
        }
        return size;
    }
    // The blob goes last: liblo's documentation leaves open whether the message copies it.
    void free() {
        if (message) lo_message_free(message);
        if (bundle) lo_bundle_free_recursive(bundle);
        if (blob) lo_blob_free(blob);
    }
};

lo_message loTypicalMessage() {
    lo_message message = lo_message_new();
    lo_message_add_int32(message, 12);
    lo_message_add_float(message, 0.75f);
    lo_message_add_string(message, "main");
    return message;
}

LoPacket loTypical() {
    return {loTypicalMessage(), typicalAddress};
}

LoPacket loTenArgs() {
    lo_message message = lo_message_new();
    lo_message_add_int32(message, 7);
    lo_message_add_float(message, 0.5f);
    lo_message_add_string(message, "sine");
    lo_message_add_int64(message, tenArgsInt64);
    lo_message_add_double(message, 440.0);
    lo_message_add_true(message);
    lo_message_add_false(message);
    lo_message_add_nil(message);
    lo_blob blob = lo_blob_new(16, blobData());
    lo_message_add_blob(message, blob);
    lo_message_add_string(message, "release");
    return {message, tenArgsAddress, nullptr, blob};
}

LoPacket loBundle3() {
    lo_bundle bundle = lo_bundle_new(LO_TT_IMMEDIATE);
    for (int i = 0; i < 3; ++i) lo_bundle_add_message(bundle, typicalAddress, loTypicalMessage());
    return {nullptr, nullptr, bundle};
}

void oscpackTypicalMessage(osc::OutboundPacketStream& stream) {
    stream << osc::BeginMessage(typicalAddress) << osc::int32(12) << 0.75f << "main"
           << osc::EndMessage;
}

void oscpackTypical(osc::OutboundPacketStream& stream) {
    oscpackTypicalMessage(stream);
}

void oscpackTenArgs(osc::OutboundPacketStream& stream) {
    stream << osc::BeginMessage(tenArgsAddress) << osc::int32(7) << 0.5f << "sine"
           << osc::int64(tenArgsInt64) << 440.0 << true << false << osc::OscNil
           << osc::Blob(blobData(), 16) << "release" << osc::EndMessage;
}

void oscpackBundle3(osc::OutboundPacketStream& stream) {
    stream << osc::BeginBundleImmediate;
    for (int i = 0; i < 3; ++i) oscpackTypicalMessage(stream);
    stream << osc::EndBundle;
}

// Our streaming writer, which like oscpack's stream writes the values straight into a buffer.
void writerTypicalMessage(OSCPacketWriter& writer) {
    writer.beginMessage(typicalAddress).int32(12).float32(0.75f).string("main").endMessage();
}

void writerTypical(OSCPacketWriter& writer) {
    writerTypicalMessage(writer);
}

void writerTenArgs(OSCPacketWriter& writer) {
    writer.beginMessage(tenArgsAddress)
        .int32(7)
        .float32(0.5f)
        .string("sine")
        .int64(tenArgsInt64)
        .float64(440.0)
        .boolean(true)
        .boolean(false)
        .null()
        .blob({blobData(), 16})
        .string("release")
        .endMessage();
}

void writerBundle3(OSCPacketWriter& writer) {
    writer.beginBundle(OSCTimeTag::immediate());
    for (int i = 0; i < 3; ++i) writerTypicalMessage(writer);
    writer.endBundle();
}

// Ours from values: built as OSCMessage or OSCBundle, as a user builds it, and encoded into
// `out`, or with rawData().
template <auto Build>
void buildAndEncode(Bytes& out) {
    Build().encode(out);
}

template <auto Build>
Bytes buildAndRawData() {
    return Build().rawData();
}

template <auto Build>
OSCPacket buildPacket() {
    return OSCPacket(Build());
}

// One case: how each library builds it from values, and the forms built once, in advance.
struct Case {
    const char* name;
    void (*kavrin)(Bytes&);
    Bytes (*kavrinRawData)();
    LoPacket (*liblo)();
    void (*oscpack)(osc::OutboundPacketStream&);
    void (*writer)(OSCPacketWriter&);
    OSCPacket packet;   // for the prebuilt encode and the owning floor
    LoPacket loPacket;  // for the prebuilt encode; kept for the run
    Bytes bytes;        // ours, decoded by everyone
    std::shared_ptr<const std::uint8_t[]> shared;  // the same bytes, for kavrin_shared
};

constexpr std::size_t outputCapacity = 1024;

const std::vector<Case>& cases() {
    static const std::vector<Case> all = [] {
        std::vector<Case> list;
        const auto add = [&list]<auto Build>(const char* name, LoPacket (*liblo)(),
                                             void (*oscpack)(osc::OutboundPacketStream&),
                                             void (*writer)(OSCPacketWriter&)) {
            list.push_back({name, buildAndEncode<Build>, buildAndRawData<Build>, liblo, oscpack,
                            writer, buildPacket<Build>(), liblo(), {}, {}});
            list.back().bytes = list.back().packet.rawData();
            list.back().shared = sharedCopy(list.back().bytes);
        };
        add.operator()<typicalMessage>("Typical", loTypical, oscpackTypical, writerTypical);
        add.operator()<tenArgsMessage>("TenArgs", loTenArgs, oscpackTenArgs, writerTenArgs);
        add.operator()<bundle3>("Bundle3", loBundle3, oscpackBundle3, writerBundle3);
        return list;
    }();
    return all;
}

Bytes oscpackBytes(const Case& c) {
    char buffer[outputCapacity];
    osc::OutboundPacketStream stream(buffer, sizeof buffer);
    c.oscpack(stream);
    return Bytes(buffer, buffer + stream.Size());
}

Bytes writerBytes(const Case& c) {
    std::uint8_t buffer[outputCapacity];
    OSCPacketWriter writer(buffer);
    c.writer(writer);
    const auto bytes = writer.bytes();
    return Bytes(bytes.begin(), bytes.end());
}

Bytes libloBytes(const LoPacket& packet) {
    Bytes out(outputCapacity);
    out.resize(packet.serialise(out.data()));
    return out;
}

std::string hex(const Bytes& bytes) {
    std::ostringstream text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text << (i % 16 == 0 ? "\n    " : " ") << std::hex << std::setw(2) << std::setfill('0')
             << int(bytes[i]);
    }
    return text.str();
}

template <class Decode>
std::vector<std::string> record(const Bytes& bytes, Decode decode) {
    RecordSink sink;
    decode(bytes, sink);
    return sink.items;
}

// The same bytes from every encoder, built in advance or from values, and the same values from
// all four decoders.
bool librariesAgree() {
    bool agree = true;
    for (const auto& c : cases()) {
        LoPacket fresh = c.liblo();
        Bytes kept;
        c.kavrin(kept);
        const std::pair<const char*, Bytes> encodings[] = {
            {"kavrin", kept},
            {"kavrin_rawdata", c.kavrinRawData()},
            {"liblo", libloBytes(fresh)},
            {"oscpack", oscpackBytes(c)},
            {"kavrin_writer", writerBytes(c)},
            {"liblo_prebuilt", libloBytes(c.loPacket)},
        };
        fresh.free();
        for (const auto& [library, bytes] : encodings) {
            if (bytes == c.bytes) continue;
            std::fprintf(stderr, "%s: %s encodes other bytes\n  kavrin_prebuilt:%s\n  %s:%s\n",
                         c.name, library, hex(c.bytes).c_str(), library, hex(bytes).c_str());
            agree = false;
        }
        const auto ours = record(c.bytes, [](auto& b, auto& s) { decodeKavrin(b, s); });
        const std::pair<const char*, std::vector<std::string>> others[] = {
            {"kavrin_view", record(c.bytes, [](auto& b, auto& s) { decodeView(b, s); })},
            {"kavrin_shared", record(c.bytes,
                                     [&c](auto&, auto& s) {
                                         decodeKavrinShared(c.shared, c.bytes.size(), s);
                                     })},
            {"liblo", record(c.bytes, [](auto& b, auto& s) { decodeLiblo(b, s); })},
            {"oscpack", record(c.bytes, [](auto& b, auto& s) { decodeOscpack(b, s); })},
        };
        for (const auto& [library, values] : others) {
            if (values == ours) continue;
            std::fprintf(stderr, "%s: %s reads other values than kavrin\n", c.name, library);
            for (std::size_t i = 0; i < std::max(values.size(), ours.size()); ++i) {
                std::fprintf(stderr, "  %-40s %s\n", i < ours.size() ? ours[i].c_str() : "-",
                             i < values.size() ? values[i].c_str() : "-");
            }
            agree = false;
        }
    }
    return agree;
}

// MARK: Benchmarks

// From values: build the message or bundle, encode it and let it go, every iteration, which is
// what sending a new message costs. Each library writes into a buffer reused across iterations;
// kavrin_rawdata has rawData() return a new vector instead.
void encodeKavrin(benchmark::State& state, const Case* c) {
    Bytes buffer;
    for (auto _ : state) {
        c->kavrin(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
}

void encodeKavrinRawData(benchmark::State& state, const Case* c) {
    for (auto _ : state) {
        const auto bytes = c->kavrinRawData();
        benchmark::DoNotOptimize(bytes.data());
    }
}

void encodeLiblo(benchmark::State& state, const Case* c) {
    std::uint8_t buffer[outputCapacity];
    for (auto _ : state) {
        LoPacket packet = c->liblo();
        benchmark::DoNotOptimize(packet.serialise(buffer));
        packet.free();
        benchmark::ClobberMemory();
    }
}

void encodeOscpack(benchmark::State& state, const Case* c) {
    char buffer[outputCapacity];
    for (auto _ : state) {
        osc::OutboundPacketStream stream(buffer, sizeof buffer);
        c->oscpack(stream);
        benchmark::DoNotOptimize(stream.Data());
        benchmark::ClobberMemory();
    }
}

// Into a caller's buffer reused across iterations, with nothing allocated: set against oscpack.
void encodeKavrinWriter(benchmark::State& state, const Case* c) {
    std::uint8_t buffer[outputCapacity];
    for (auto _ : state) {
        OSCPacketWriter writer(buffer);
        c->writer(writer);
        benchmark::DoNotOptimize(writer.bytes().data());
        benchmark::ClobberMemory();
    }
}

// Prebuilt: the encoding alone, of a message or bundle built before the loop. oscpack has no
// such form: its values go straight into the buffer.
void encodeKavrinPrebuilt(benchmark::State& state, const Case* c) {
    Bytes buffer;
    for (auto _ : state) {
        c->packet.encode(buffer);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
}

void encodeLibloPrebuilt(benchmark::State& state, const Case* c) {
    std::uint8_t buffer[outputCapacity];
    for (auto _ : state) {
        benchmark::DoNotOptimize(c->loPacket.serialise(buffer));
        benchmark::ClobberMemory();
    }
}

template <void (*Decode)(const Bytes&, SumSink&)>
void decodeWith(benchmark::State& state, const Case* c) {
    for (auto _ : state) {
        SumSink sink;
        Decode(c->bytes, sink);
        benchmark::DoNotOptimize(sink.sum);
    }
}

void decodeShared(benchmark::State& state, const Case* c) {
    for (auto _ : state) {
        SumSink sink;
        decodeKavrinShared(c->shared, c->bytes.size(), sink);
        benchmark::DoNotOptimize(sink.sum);
    }
}

// Not a decoder: the least any decoder into OSCPacket's owning types must do, which is to make
// the same strings, vectors and blobs, and keep a shared copy of the datagram. Here they come from
// copying an already decoded packet, then are read like the decoders' output.
void owningFloor(benchmark::State& state, const Case* c) {
    for (auto _ : state) {
        auto kept = std::make_shared_for_overwrite<std::uint8_t[]>(c->bytes.size());
        std::memcpy(kept.get(), c->bytes.data(), c->bytes.size());
        const OSCPacket packet = c->packet;
        SumSink sink;
        readKavrinPacket(packet, sink);
        benchmark::DoNotOptimize(kept.get());
        benchmark::DoNotOptimize(sink.sum);
    }
}

void registerBenchmarks() {
    using Benchmark = void (*)(benchmark::State&, const Case*);
    const std::pair<const char*, Benchmark> encoders[] = {
        {"kavrin", encodeKavrin},
        {"kavrin_rawdata", encodeKavrinRawData},
        {"liblo", encodeLiblo},
        {"oscpack", encodeOscpack},
        {"kavrin_writer", encodeKavrinWriter},
        {"kavrin_prebuilt", encodeKavrinPrebuilt},
        {"liblo_prebuilt", encodeLibloPrebuilt},
    };
    const std::pair<const char*, Benchmark> decoders[] = {
        {"kavrin", decodeWith<decodeKavrin<SumSink>>},
        {"kavrin_shared", decodeShared},
        {"kavrin_view", decodeWith<decodeView<SumSink>>},
        {"liblo", decodeWith<decodeLiblo<SumSink>>},
        {"oscpack", decodeWith<decodeOscpack<SumSink>>},
        {"owning_floor", owningFloor},
    };
    for (const auto& c : cases()) {
        for (const auto& [library, run] : encoders) {
            const std::string name = std::string("Encode") + c.name + "/" + library;
            benchmark::RegisterBenchmark(name.c_str(), run, &c);
        }
        for (const auto& [library, run] : decoders) {
            const std::string name = std::string("Decode") + c.name + "/" + library;
            benchmark::RegisterBenchmark(name.c_str(), run, &c);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!librariesAgree()) {
        std::fprintf(stderr, "The libraries disagree; nothing was measured.\n");
        return 1;
    }
    registerBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
