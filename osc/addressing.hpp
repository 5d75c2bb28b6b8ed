#pragma once
// The address space: methods registered by address, messages dispatched to them.
#include "osc/addressing/OSCAddressSpace.hpp"
