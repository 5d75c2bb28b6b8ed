#pragma once
// The whole OSC library.
#include "osc/addressing.hpp"
#include "osc/codec.hpp"
#include "osc/dispatch.hpp"
#include "osc/pattern.hpp"
#include "osc/stream.hpp"
#include "osc/transport.hpp"
