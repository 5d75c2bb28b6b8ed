#pragma once

#include <cstdint>
#include <vector>

#include "osc/codec/PassiveDataReader.hpp"

namespace kavrin {

namespace detail {
// Holds the buffer so that it is built before the reader that points into it.
struct DataReaderStorage {
    std::vector<std::uint8_t> base;
};
}  // namespace detail

// The cursor of PassiveDataReader holding its own copy of the bytes. Copies and moves keep the
// read position and point at their own buffer. One thread at a time.
class DataReader : private detail::DataReaderStorage, public PassiveDataReader {
  public:
    explicit DataReader(std::vector<std::uint8_t> bytes);
    DataReader(const DataReader& other);
    DataReader(DataReader&& other) noexcept;
    DataReader& operator=(const DataReader& other);
    DataReader& operator=(DataReader&& other) noexcept;

    const std::vector<std::uint8_t>& base() const { return DataReaderStorage::base; }
};

}  // namespace kavrin
