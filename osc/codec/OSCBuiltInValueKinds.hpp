#pragma once

namespace kavrin {

class OSCSerialization;

// Registers the fourteen built-in value kinds, in the order of OSCValue's alternatives.
void registerBuiltInValueKinds(OSCSerialization& serialization);

}  // namespace kavrin
