#pragma once

#include <string>

#include "osc/codec/OSCMessage.hpp"

namespace kavrin::tools {

// One message as a line, as oscdump prints it after its time stamp: the address, the type tags
// without their comma, then each value. The values print as oscdump prints them (1, 2.500000,
// "hello", 'x', #T, #F, Nil, Infinitum, MIDI [0x01 0x02 0x03 0x04], [3b 0x1 0x2 0xff],
// 00000001.80000000), except that text with controls in it prints them escaped (\n, \t, \x07)
// so that a message never takes more than one line; arrays print as [1 2].
std::string messageLine(const OSCMessage& message);

}  // namespace kavrin::tools
