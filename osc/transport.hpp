#pragma once
// OSC over UDP: the asynchronous socket, the server and the client.
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"
