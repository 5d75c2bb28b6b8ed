#pragma once
// OSC over a byte stream (TCP, optionally TLS): framing, the server and the client.
#include "osc/stream/OSCDeframer.hpp"
#include "osc/stream/OSCFraming.hpp"
#include "osc/stream/OSCStreamClient.hpp"
#include "osc/stream/OSCStreamConnection.hpp"
#include "osc/stream/OSCStreamCounters.hpp"
#include "osc/stream/OSCStreamServer.hpp"
#include "osc/stream/OSCStreamSettings.hpp"
