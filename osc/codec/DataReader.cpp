#include "osc/codec/DataReader.hpp"

#include <utility>

namespace kavrin {

DataReader::DataReader(std::vector<std::uint8_t> bytes)
    : DataReaderStorage{std::move(bytes)}, PassiveDataReader(DataReaderStorage::base) {}

DataReader::DataReader(const DataReader& other)
    : DataReaderStorage(other), PassiveDataReader(DataReaderStorage::base, other.readOffset()) {}

DataReader::DataReader(DataReader&& other) noexcept
    : DataReaderStorage(std::move(other)),
      PassiveDataReader(DataReaderStorage::base, other.readOffset()) {}

DataReader& DataReader::operator=(const DataReader& other) {
    if (this != &other) *this = DataReader(other);
    return *this;
}

DataReader& DataReader::operator=(DataReader&& other) noexcept {
    const auto offset = other.readOffset();
    DataReaderStorage::base = std::move(other.DataReaderStorage::base);
    rebind(DataReaderStorage::base, offset);
    return *this;
}

}  // namespace kavrin
