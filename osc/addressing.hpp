#pragma once
// The address space: methods registered by address, messages dispatched to them; and the rules
// a server delivers by: routes to methods, time tags, what is dropped and why.
#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/addressing/OSCDeliveryPlanner.hpp"
#include "osc/addressing/OSCDropReason.hpp"
#include "osc/addressing/OSCMethodRoutes.hpp"
