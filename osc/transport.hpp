#pragma once
// OSC over UDP: the asynchronous socket, the server and the client; the asynchronous TCP socket
// with TLS.
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/OSCServer.hpp"
#include "osc/transport/SocketAddress.hpp"
#include "osc/transport/SocketError.hpp"
#include "osc/transport/TcpSocket.hpp"
#include "osc/transport/TcpSocketError.hpp"
#include "osc/transport/TlsSettings.hpp"
#include "osc/transport/UdpSocket.hpp"
#include "osc/transport/UdpSocketError.hpp"
