#include "osc/codec/OSCMessageView.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "osc/codec/OSCBundleView.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "tests/codec/CodecTestSupport.hpp"
#include "tests/codec/ViewAgreement.hpp"

namespace kavrin {
namespace {

using test::bytes;
using test::Bytes;

bool within(const void* pointer, const Bytes& data) {
    const auto* p = static_cast<const std::uint8_t*>(pointer);
    return p >= data.data() && p < data.data() + data.size();
}

TEST(OSCMessageView, ReadsEveryKindInPlaceAndRefusesReadsOfTheWrongKind) {
    const OSCMessage original = test::everyKind();
    const Bytes data = original.rawData();
    const OSCMessageView view(data);

    EXPECT_EQ(view.address(), "/every/kind");
    EXPECT_TRUE(within(view.address().data(), data));
    EXPECT_EQ(view.typeTags(), ",bfisTFcdh[i[s][]]ImNSt");
    ASSERT_EQ(view.argumentCount(), 15u);
    EXPECT_EQ(std::distance(view.begin(), view.end()), 15);

    EXPECT_EQ(Bytes(view.argument(0).blob().begin(), view.argument(0).blob().end()),
              (Bytes{1, 2, 3, 4, 5}));
    EXPECT_TRUE(within(view.argument(0).blob().data(), data));
    EXPECT_EQ(view.argument(1).float32(), 1.5f);
    EXPECT_EQ(view.argument(2).int32(), -7);
    EXPECT_EQ(view.argument(3).string(), "text");
    EXPECT_TRUE(within(view.argument(3).string().data(), data));
    EXPECT_TRUE(view.argument(4).boolean());
    EXPECT_FALSE(view.argument(5).boolean());
    EXPECT_EQ(view.argument(6).character(), char32_t{0x1F600});
    EXPECT_EQ(view.argument(7).float64(), 2.25);
    EXPECT_EQ(view.argument(8).int64(), -1234567890123);
    EXPECT_EQ(view.argument(10).tag(), 'I');
    EXPECT_EQ(view.argument(11).midi(), (OSCMIDIValue{1, 0x90, 60, 127}));
    EXPECT_EQ(view.argument(12).kind(), OSCValueKind::null);
    EXPECT_EQ(view.argument(13).string(), "alt");
    EXPECT_EQ(view.argument(13).kind(), OSCValueKind::stringAlt);
    EXPECT_EQ(view.argument(14).timeTag(), (OSCTimeTag{0, 0x0102030405060708}));

    // Arrays are one argument each; their elements are walked the same way, nested or empty.
    const auto array = view.argument(9).elements();
    auto element = array.begin();
    EXPECT_EQ((*element).int32(), 1);
    const auto inner = (*++element).elements();
    EXPECT_EQ((*inner.begin()).string(), "");
    EXPECT_EQ(std::next(inner.begin()), inner.end());
    EXPECT_TRUE((*++element).elements().empty());
    EXPECT_EQ(++element, array.end());

    std::vector<OSCValue> values;
    for (const auto argument : view) values.push_back(argument.value());
    EXPECT_EQ(values, original.values);
    EXPECT_EQ(view.message(), original);
    EXPECT_EQ(view.message().decodedFrom()->size(), data.size());

    // Reads of the wrong kind are refused.
    EXPECT_EQ(test::thrown<OSCDecodeError>([&] { view.argument(2).string(); },
                                           OSCDecodeError::Case::unexpectedType),
              "OSC type tag i cannot be read as String.");
    EXPECT_THROW(view.argument(3).int32(), OSCDecodeError);
    EXPECT_THROW(view.argument(3).elements(), OSCDecodeError);
    EXPECT_THROW(view.argument(15), std::out_of_range);
}

TEST(OSCBundleView, WalksNestedElementsInPlace) {
    const OSCBundle inner(OSCTimeTag{0, 5}, {OSCMessage("/in", {2})});
    const OSCBundle outer(OSCTimeTag::immediate(),
                          {OSCMessage("/first", {1}), inner, OSCMessage("/last")});
    const Bytes data = outer.rawData();
    const auto packet = OSCPacketView::decode(data);
    ASSERT_TRUE(packet && packet->isBundle());
    const auto& view = packet->bundle();
    EXPECT_TRUE(view.timeTag().isImmediate());
    ASSERT_EQ(view.elementCount(), 3u);

    auto element = view.begin();
    EXPECT_EQ((*element).message().address(), "/first");
    EXPECT_TRUE(within((*element).bytes().data(), data));
    ++element;
    ASSERT_TRUE((*element).isBundle());
    EXPECT_EQ((*element).bundle().timeTag().rawValue, 5u);
    EXPECT_EQ((*element).bundle().elementCount(), 1u);
    EXPECT_EQ((*(*element).bundle().begin()).message().argument(0).int32(), 2);
    EXPECT_THROW((*element).message(), OSCDecodeError);
    ++element;
    EXPECT_EQ((*element).message().argumentCount(), 0u);
    EXPECT_EQ(++element, view.end());
    EXPECT_EQ(view.bundle(), outer);
    EXPECT_EQ(packet->packet(), OSCPacket(outer));

    EXPECT_FALSE(OSCPacketView::decode(bytes({"abcd"})));
    EXPECT_THROW(packet->message(), OSCDecodeError);
}

// Every datagram either decoder refuses, the other refuses with the same text; the rest read
// alike. Seeds: the fuzz corpus and messages with every kind, each cut short at every length and
// with every byte replaced by values that steer the decoders into their checks.
TEST(OSCPacketView, AgreesWithTheOwningDecoders) {
    std::vector<Bytes> seeds = {
        test::everyKind().rawData(),
        // More elements than the bundle view keeps the check's findings for, a bundle among them.
        OSCBundle(OSCTimeTag::immediate(),
                  {OSCMessage("/a", {1}), OSCBundle(OSCTimeTag{}, {OSCMessage("/b/c")}),
                   OSCMessage("/d", {std::string("e")}), OSCMessage("/f"), OSCMessage("/g", {2.5f}),
                   OSCMessage("/h/i", {true}), OSCMessage("/j", {std::string("kl")})})
            .rawData(),
    };
    const std::filesystem::path corpus = std::filesystem::path(KAVRIN_SOURCE_DIR) / "fuzz/corpus";
    for (const auto& file : std::filesystem::directory_iterator(corpus)) {
        std::ifstream in(file.path(), std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    ASSERT_GE(seeds.size(), 6u);

    const std::uint8_t replacements[] = {0x00, ',', '[', ']', 'c', 'x', '#', '/', 0x80, 0xFF, 0x01};
    std::size_t checked = 0;
    for (const auto& seed : seeds) {
        for (std::size_t length = 0; length <= seed.size(); ++length) {
            const Bytes cut(seed.begin(), seed.begin() + static_cast<std::ptrdiff_t>(length));
            const auto disagreement = test::viewDisagreement(cut);
            ASSERT_EQ(disagreement, "") << "cut to " << length << " bytes";
            ++checked;
        }
        for (std::size_t at = 0; at < seed.size(); ++at) {
            for (const auto value : replacements) {
                Bytes changed = seed;
                changed[at] = value;
                const auto disagreement = test::viewDisagreement(changed);
                ASSERT_EQ(disagreement, "") << "byte " << at << " set to " << int(value);
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 1000u);
}

}  // namespace
}  // namespace kavrin
