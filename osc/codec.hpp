#pragma once
// OSC values, messages, bundles and time tags, and their wire form.
#include "osc/codec/DataReader.hpp"
#include "osc/codec/OSCBundle.hpp"
#include "osc/codec/OSCError.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCNumberValue.hpp"
#include "osc/codec/OSCPacket.hpp"
#include "osc/codec/OSCPacketView.hpp"
#include "osc/codec/OSCSerialization.hpp"
#include "osc/codec/OSCTimeTag.hpp"
#include "osc/codec/OSCValue.hpp"
#include "osc/codec/OSCValueMask.hpp"
#include "osc/codec/PassiveDataReader.hpp"
