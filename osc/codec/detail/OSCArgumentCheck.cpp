#include "osc/codec/detail/OSCArgumentCheck.hpp"

#include "osc/codec/PassiveDataReader.hpp"
#include "osc/codec/detail/OSCWireFormat.hpp"

namespace kavrin::argumentCheck {

namespace {

// Checks the bytes of one value with an atomic or variable tag as the owning decoder reads
// them. Kept apart from arrays so that it inlines into their loop.
[[gnu::always_inline]] inline void checkAtomic(char tag, PassiveDataReader& reader,
                                               OSCTextPolicy policy) {
    const OSCTypeTag* entry = oscTypeTag::find(tag);
    if (entry == nullptr) throw wireFormat::noConcreteType(tag);
    switch (entry->format) {
        case OSCArgumentFormat::none:
            break;
        case OSCArgumentFormat::int32:
            reader.readInt32();
            break;
        case OSCArgumentFormat::float32:
            reader.readFloat32();
            break;
        case OSCArgumentFormat::character:
            wireFormat::unicodeScalar(static_cast<std::uint32_t>(reader.readInt32()));
            break;
        case OSCArgumentFormat::midi:
            reader.readByteView(4);  // four bytes, not a number: its own shortage text
            break;
        case OSCArgumentFormat::int64:
            reader.readInt64();
            break;
        case OSCArgumentFormat::float64:
            reader.readDouble();
            break;
        case OSCArgumentFormat::timeTag:
            reader.readUInt64();
            break;
        case OSCArgumentFormat::string:
            reader.readStringView(policy);
            break;
        case OSCArgumentFormat::blob:
            reader.readBlobView();
            break;
        case OSCArgumentFormat::array:
            break;  // never here: arrays are walked tag by tag
    }
}

// Checks the array whose "[" is tags[index] and moves `index` past its "]".
void checkArray(std::string_view tags, std::size_t& index, PassiveDataReader& reader,
                int& arrayDepth, OSCTextPolicy policy) {
    wireFormat::enterArray(arrayDepth);
    for (++index; index < tags.size();) {
        if (tags[index] == oscArrayEnd) {
            --arrayDepth;
            ++index;
            return;
        }
        if (tags[index] == oscArrayStart) {
            checkArray(tags, index, reader, arrayDepth, policy);
        } else {
            checkAtomic(tags[index++], reader, policy);
        }
    }
    throw wireFormat::arrayNotTerminated();
}

}  // namespace

Header headerThroughReader(std::span<const std::uint8_t> bytes) {
    PassiveDataReader reader(bytes);
    const auto found = wireFormat::readMessageHeader(reader);
    return {found.address.size(), found.tags.size()};
}

std::size_t count(std::string_view tags) {
    std::size_t count = 0;
    int depth = 0;
    for (const char tag : tags) {
        if (tag == oscArrayStart) {
            if (depth++ == 0) ++count;
        } else if (tag == oscArrayEnd) {
            --depth;
        } else if (tag != ',' && depth == 0) {
            ++count;
        }
    }
    return count;
}

std::size_t other(std::string_view tags, std::size_t& index, std::span<const std::uint8_t> bytes,
                  int& arrayDepth, OSCTextPolicy policy) {
    PassiveDataReader reader(bytes);
    if (tags[index] == oscArrayStart) {
        checkArray(tags, index, reader, arrayDepth, policy);
    } else {
        checkAtomic(tags[index++], reader, policy);
    }
    return reader.readOffset();
}

}  // namespace kavrin::argumentCheck
