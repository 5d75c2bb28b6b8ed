#pragma once
// Address patterns, wildcard matching and the method tree.
#include "osc/addressing/LossyASCII.hpp"
#include "osc/addressing/OSCAddressPattern.hpp"
#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/addressing/OSCCompiledPattern.hpp"
