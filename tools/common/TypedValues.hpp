#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "osc/codec/OSCValue.hpp"

namespace kavrin::tools {

// A TYPES or VALUES argument that cannot be read; what() says which and why.
class TypedValuesError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

// The values that oscsend's TYPES and VALUES arguments stand for: one type character per value,
// i h f d s S c m T F N I as oscsend reads them (m as 8 hexadecimal digits: port, status, data1,
// data2; T F N I take no value), and beyond those b (the blob's bytes in hexadecimal, "0102ff"),
// t (a time tag as oscdump prints it, "eeb09384.80000000", or "now") and [ ] around an array.
// Throws TypedValuesError for an unknown type, a value that does not read as its type, a value
// missing or one too many, or brackets that do not pair.
std::vector<OSCValue> typedValues(std::string_view types, const std::vector<std::string>& values);

}  // namespace kavrin::tools
