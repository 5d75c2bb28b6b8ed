#include "OpensslProcess.hpp"
#include "TcpTestSupport.hpp"
#include "TestCertificates.hpp"
#include "osc/transport/TcpSocket.hpp"

// TcpSocket's TLS against OpenSSL's own s_server and s_client, with certificates made for the
// test (TestCertificates.hpp).

namespace kavrin {
namespace {

using namespace tcpTest;

class TcpSocketTls : public ::testing::Test {
  protected:
    static std::string path(const std::string& name) {
        return TestCertificates::shared().path(name);
    }

    static TlsSettings clientSettings() {
        TlsSettings settings;
        settings.caFile = path("ca.pem");
        return settings;
    }

    static TlsSettings serverSettings() {
        TlsSettings settings;
        settings.isServer = true;
        settings.certificateChainFile = path("server.pem");
        settings.privateKeyFile = path("server.key");
        return settings;
    }
};

// The name is checked as the host, as peerName or as an address. A refusal gives OpenSSL's reason
// and verification's own as the failure reason; only verification turned off passes any chain.
TEST_F(TcpSocketTls, ClientVerifiesOpensslServerOrRefusesItWithTheReason) {
    struct Case {
        const char* what;
        std::string serverHost, connectHost, certificate, caFile, peerName;
        bool verifyPeer;
        std::optional<std::string> reason;  // none: the handshake succeeds
    };
    const std::string ca = path("ca.pem"), other = path("other.pem");
    const Case cases[] = {
        {"by host name", "127.0.0.1", "localhost", "server", ca, "", true, std::nullopt},
        {"by peer name", "::1", "::1", "server", ca, "localhost", true, std::nullopt},
        {"by address", "127.0.0.1", "127.0.0.1", "server", ca, "", true, std::nullopt},
        {"unchecked", "127.0.0.1", "localhost", "server", other, "kavrin.invalid", false, std::nullopt},
        {"unknown CA", "127.0.0.1", "localhost", "server", other, "", true,
         "unable to get local issuer certificate"},
        {"wrong name", "127.0.0.1", "localhost", "server", ca, "kavrin.invalid", true,
         "hostname mismatch"},
        {"expired", "127.0.0.1", "localhost", "expired", ca, "", true, "certificate has expired"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        // On a port of the kernel's choice.
        const std::string host = c.serverHost == "::1" ? "[::1]" : c.serverHost;
        auto server = std::make_unique<OpensslProcess>(std::vector<std::string>{
            "s_server", "-accept", host + ":0", "-cert", path(c.certificate + ".pem"), "-key",
            path(c.certificate + ".key")});
        const std::uint16_t port = server->acceptingPort(10s);
        ASSERT_NE(port, 0) << "s_server did not start: " << server->output();
        Endpoint client;
        TcpSocketError error;
        ASSERT_TRUE(client.socket->connectToHost(c.connectHost, port, 5.0, &error)) << describe(error);
        TlsSettings settings;
        settings.caFile = c.caFile;
        settings.peerName = c.peerName;
        settings.verifyPeer = c.verifyPeer;
        ASSERT_TRUE(client.socket->startTLS(settings, &error)) << describe(error);
        Recorder& r = *client.recorder;
        if (c.reason) {
            client.socket->readAvailable(100, 10.0, 1);
            EXPECT_EQ(r.disconnectError(client.socket.get()),
                      "TcpSocketErrorDomain 10: certificate verify failed (" + *c.reason + ")");
            EXPECT_TRUE(r.read([&] { return r.secured.empty(); }));
            continue;
        }
        ASSERT_TRUE(client.socket->write(bytes("ping from kavrin\n"), 5.0, 1));
        ASSERT_TRUE(client.socket->readToDelimiter(bytes("\n"), 1000, 10.0, 2));
        ASSERT_TRUE(r.waitFor([&] { return !r.secured.empty() || !r.disconnects.empty(); }));
        ASSERT_TRUE(r.read([&] { return r.disconnects.empty(); }))
            << describe(r.read([&] { return r.disconnects[0].error; }));
        EXPECT_TRUE(client.socket->isSecure());
        EXPECT_TRUE(server->waitForOutput("ping from kavrin", 10s)) << server->output();
        ASSERT_TRUE(server->send("hello from s_server\n"));
        ASSERT_TRUE(r.waitForReads(1)) << server->output();
        EXPECT_EQ(text(r.read([&] { return r.reads[0].data; })), "hello from s_server\n");
        EXPECT_EQ(r.read([&] { return r.written; }), std::vector<std::int64_t>{1});
    }
}

// s_client to our listener, verifying our chain and name strictly; data both ways.
TEST_F(TcpSocketTls, OpensslClientVerifiesOurServerAndTalksBothWays) {
    Endpoint server;
    server.recorder->onAccept = [](const std::shared_ptr<TcpSocket>& accepted) {
        accepted->startTLS(serverSettings());
        accepted->write(bytes("hello from kavrin\n"), 5.0, 1);
        accepted->readToDelimiter(bytes("\n"), 1000, 10.0, 2);
    };
    TcpSocketError error;
    ASSERT_TRUE(server.socket->acceptOnPort(0, &error)) << describe(error);
    const std::string port = std::to_string(server.socket->localPort());
    std::size_t served = 0;
    for (const std::string& target : {"127.0.0.1:" + port, "[::1]:" + port}) {
        SCOPED_TRACE(target);
        OpensslProcess client({"s_client", "-connect", target, "-CAfile", path("ca.pem"),
                               "-verify_return_error", "-verify_hostname", "localhost",
                               "-servername", "localhost", "-quiet"});
        ASSERT_TRUE(client.waitForOutput("hello from kavrin", 10s)) << client.output();
        ASSERT_TRUE(client.send("hello from s_client\n"));
        ASSERT_TRUE(server.recorder->waitForReads(++served)) << client.output();
        EXPECT_EQ(text(server.recorder->read([&] { return server.recorder->reads.back().data; })),
                  "hello from s_client\n");
    }
    EXPECT_EQ(server.recorder->read([&] { return server.recorder->secured.size(); }), 2u);

    // A client that trusts another CA refuses us: our end hears its alert.
    OpensslProcess refusing({"s_client", "-connect", "127.0.0.1:" + port, "-CAfile",
                             path("other.pem"), "-verify_return_error", "-quiet"});
    std::optional<TcpSocketError> alert;
    ASSERT_TRUE(server.recorder->waitFor([&] {
        for (const auto& d : server.recorder->disconnects) {
            if (d.error && d.error->code() == TcpSocketError::tls) alert = d.error;
        }
        return alert.has_value();
    })) << refusing.output();
    EXPECT_NE(alert->description().find("alert"), std::string::npos) << describe(alert);
}

// Settings that cannot be used are refused at once, naming the file and the cause.
TEST_F(TcpSocketTls, FilesThatDoNotLoadAreNamedWithTheCause) {
    const std::string chain = "Cannot load the certificate chain";
    const std::string key = "Cannot load the private key";
    const std::string trusted = "Cannot load the trusted certificates";
    const std::string missing = path("missing.pem"), noFile = "No such file or directory";
    const struct {
        std::string chainFile, keyFile, caFile, caPath;  // a server when there is a chain
        std::string what, file, cause;
    } cases[] = {
        {missing, path("server.key"), "", "", chain, missing, noFile},
        {path("server.key"), path("server.key"), "", "", chain, path("server.key"),
         "not a PEM certificate"},
        {path("server.pem"), missing, "", "", key, missing, noFile},
        {path("server.pem"), path("server.pem"), "", "", key, path("server.pem"),
         "not a PEM private key"},
        {path("server.pem"), path("other.key"), "", "", key, path("other.key"),
         "the key does not match the certificate"},
        {"", "", missing, "", trusted, missing, noFile},
        {"", "", path("server.key"), "", trusted, path("server.key"), "not a PEM certificate"},
        {"", "", "", path("missing"), trusted, path("missing"), noFile},
    };
    for (const auto& c : cases) {
        TlsSettings settings;
        settings.isServer = !c.chainFile.empty();
        settings.certificateChainFile = c.chainFile;
        settings.privateKeyFile = c.keyFile;
        settings.caFile = c.caFile;
        settings.caPath = c.caPath;
        Endpoint client;
        TcpSocketError error;
        EXPECT_FALSE(client.socket->startTLS(settings, &error));
        EXPECT_EQ(error.code(), TcpSocketError::tls) << describe(error);
        EXPECT_EQ(error.description(), c.what + " from \"" + c.file + "\": " + c.cause)
            << describe(error);
    }
}

// A peer that accepts and then says nothing cannot hold a handshake open past its time-out.
TEST_F(TcpSocketTls, StalledHandshakeTimesOut) {
    std::uint16_t port = 0;
    Fd listener = rawListen("::1", &port);
    Endpoint client;
    TcpSocketError error;
    ASSERT_TRUE(client.socket->connectToHost("::1", port, 5.0, &error)) << describe(error);
    TlsSettings settings = clientSettings();
    settings.handshakeTimeout = 0.3;
    ASSERT_TRUE(client.socket->startTLS(settings, &error)) << describe(error);
    Fd silent = rawAccept(listener.get());
    EXPECT_EQ(client.recorder->disconnectError(client.socket.get()),
              "TcpSocketErrorDomain 11: TLS handshake timed out");
}

// Plain text, then TLS in the middle of the stream without waiting for an answer: the client's
// first handshake bytes follow its last plain ones at once, so the server has usually received
// them with its plain read. Both ends are ours; the server asks for the client's certificate.
TEST_F(TcpSocketTls, StartsInTheMiddleOfTheStream) {
    const std::string host = "::1";
    Endpoint server;
    server.recorder->onAccept = [](const std::shared_ptr<TcpSocket>& accepted) {
        TlsSettings settings = serverSettings();
        settings.requireClientCertificate = true;
        settings.caFile = path("ca.pem");
        accepted->readToDelimiter(bytes("\n"), 100, 10.0, 1);
        accepted->startTLS(settings);
        accepted->readToDelimiter(bytes("\n"), 100, 10.0, 2);
        accepted->write(bytes("secret answer\n"), 10.0, 3);
    };
    TcpSocketError error;
    ASSERT_TRUE(server.socket->acceptOnInterface(host, 0, &error)) << describe(error);
    Endpoint client;
    ASSERT_TRUE(client.socket->connectToHost(host, server.socket->localPort(), 5.0, &error))
        << describe(error);
    client.socket->write(bytes("STARTTLS\n"), 10.0, 1);
    TlsSettings settings = clientSettings();
    settings.peerName = "localhost";
    settings.certificateChainFile = path("server.pem");
    settings.privateKeyFile = path("server.key");
    ASSERT_TRUE(client.socket->startTLS(settings, &error)) << describe(error);
    client.socket->write(bytes("secret question\n"), 10.0, 2);
    client.socket->readToDelimiter(bytes("\n"), 100, 10.0, 3);

    Recorder& r = *client.recorder;
    ASSERT_TRUE(r.waitFor([&] { return r.reads.size() == 1 || !r.disconnects.empty(); }));
    ASSERT_TRUE(r.read([&] { return r.disconnects.empty(); }))
        << describe(r.read([&] { return r.disconnects[0].error; }));
    EXPECT_EQ(text(r.read([&] { return r.reads[0].data; })), "secret answer\n");
    Recorder& atServer = *server.recorder;
    ASSERT_TRUE(atServer.waitForReads(2));
    const auto reads = atServer.read([&] { return atServer.reads; });
    EXPECT_EQ(std::vector<std::string>({text(reads[0].data), text(reads[1].data)}),
              std::vector<std::string>({"STARTTLS\n", "secret question\n"}));
    EXPECT_EQ(atServer.read([&] { return atServer.secured.size(); }), 1u);

    // An orderly close sends close_notify: the server's waiting read ends with the peer.
    const auto accepted = atServer.read([&] { return atServer.accepted[0]; });
    accepted->readAvailable(100, 10.0, 4);
    client.socket->disconnect();
    EXPECT_EQ(atServer.disconnectError(accepted.get()),
              describe(TcpSocketError::closedByPeerError()));
}

}  // namespace
}  // namespace kavrin
