#pragma once

#include <string>

namespace kavrin {

/// How a TcpSocket secures its connection (TcpSocket::startTLS). TLS 1.2 is the oldest version
/// either side accepts. Files are PEM. A plain value: copy it freely.
struct TlsSettings {
    /// The side of the handshake this socket takes: an accepted connection usually serves, a
    /// connecting one usually is the client.
    bool isServer = false;

    /// This side's certificate (then the intermediates up to, not including, the root) and its
    /// private key. A server needs both; a client only when the server asks for one.
    std::string certificateChainFile;
    std::string privateKeyFile;

    /// Whom to trust: a CA file and/or a folder of hashed CA files (c_rehash); with neither,
    /// the system's store.
    std::string caFile;
    std::string caPath;

    /// The name the server's certificate must carry, also sent as SNI. Empty: the host the
    /// socket connected to (connectToHost), or its numeric address (connectToAddress). Client
    /// only.
    std::string peerName;

    /// Verify the peer's chain against the trust above, its dates and (client) its name. On by
    /// default. Turning it off is dangerous: anyone between the two ends can then read and
    /// change the traffic unnoticed. For tests against throwaway certificates only.
    bool verifyPeer = true;

    /// Server only: ask every client for a certificate and refuse those without a valid one
    /// (verified as above unless verifyPeer is off).
    bool requireClientCertificate = false;

    /// Seconds the handshake may take once it starts, negative for no limit; past it the
    /// connection is closed with handshakeTimeout.
    double handshakeTimeout = 30.0;
};

}  // namespace kavrin
