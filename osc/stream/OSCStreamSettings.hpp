#pragma once

#include <cstddef>
#include <optional>

#include "osc/codec/OSCTextPolicy.hpp"
#include "osc/stream/OSCFraming.hpp"
#include "osc/transport/TlsSettings.hpp"

namespace kavrin {

/// How an OSC stream server or client frames, bounds and secures its connections. A plain value.
struct OSCStreamSettings {
    OSCFraming framing = OSCFraming::lengthPrefixed;
    /// The largest packet taken or sent; a peer that announces or sends more loses its
    /// connection (the stream cannot be resynchronised).
    std::size_t maximumFrame = oscDefaultMaximumFrame;
    /// Seconds a peer may pause in the middle of a packet before its connection is closed with
    /// TcpSocketError::readTimeout; negative for no limit. Between packets a connection may
    /// rest as long as the server's idle time-out allows.
    double frameTimeout = 10.0;
    /// Seconds a write may wait for the peer to take it before the connection is closed with
    /// TcpSocketError::writeTimeout; negative for no limit.
    double writeTimeout = 10.0;
    /// Client only: seconds a connect may take, negative for no limit.
    double connectTimeout = 10.0;
    /// What string arguments may hold, both ways (OSCTextPolicy): received packets are decoded
    /// and sent ones encoded under it. With ascii, a packet with UTF-8 in a string is dropped
    /// as undecodable (the connection reads on) and such text is sent as printable ASCII.
    OSCTextPolicy textPolicy = OSCTextPolicy::ascii;
    /// What a connection may have read whose messages have not yet reached the handlers (the
    /// dispatch queue is behind), counted as eight times the bytes read: past it the connection
    /// reads no more, and TCP holds the peer back, until they have.
    std::size_t maxReceiveBacklog = 4u << 20;
    /// TLS on every connection when set. A server's side is taken as the server whatever
    /// `isServer` says, a client's as the client.
    std::optional<TlsSettings> tls;
};

/// The domain of the errors an OSC stream connection ends with that are not the socket's: a
/// stream that breaks its framing (code oscStreamFramingError, OSCFramingError's text).
inline constexpr const char* oscStreamErrorDomain = "OSCStreamErrorDomain";
inline constexpr int oscStreamFramingError = 1;

}  // namespace kavrin
