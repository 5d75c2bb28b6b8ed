#include "osc/transport/detail/TlsSession.hpp"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pemerr.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509err.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "osc/transport/SocketAddress.hpp"

namespace kavrin {

struct TlsSession::Impl {
    ~Impl() {
        SSL_free(ssl);  // frees the descriptor's BIO too, never the descriptor
        SSL_CTX_free(context);
    }

    TlsSettings settings;
    SSL_CTX* context = nullptr;
    SSL* ssl = nullptr;
    int fd = -1;
    std::vector<std::uint8_t> received;  // read off the descriptor before TLS started
    std::size_t receivedTaken = 0;
};

namespace {

using Impl = TlsSession::Impl;

constexpr const char* keyMismatch = "the key does not match the certificate";

// OpenSSL's reason for the last error of this thread's calls; the queue is emptied.
std::string lastReason() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason ? reason : "TLS failure";
}

TcpSocketError loadError(const std::string& what) {
    return TcpSocketError::tlsError(lastReason(), what);
}

// Why a file of the settings did not load, from this thread's error queue, which is emptied:
// the system's reason for a file that cannot be read, "not a PEM " and the kind for one that
// holds no such PEM block, a key that does not fit the certificate, else OpenSSL's reason
// for the first error (the deepest).
std::string fileCause(const std::string& kind) {
    std::string cause, first;
    while (const unsigned long code = ERR_get_error()) {
        const int library = ERR_GET_LIB(code);
        const int reason = ERR_GET_REASON(code);
        if (!cause.empty()) continue;
        if (library == ERR_LIB_SYS) {
            cause = std::system_category().message(reason);
        } else if ((library == ERR_LIB_PEM && reason == PEM_R_NO_START_LINE) ||
                   (library == ERR_LIB_OSSL_DECODER && reason == ERR_R_UNSUPPORTED) ||
                   (library == ERR_LIB_X509 && reason == X509_R_NO_CERTIFICATE_OR_CRL_FOUND)) {
            cause = "not a PEM " + kind;
        } else if (library == ERR_LIB_X509 && reason == X509_R_KEY_VALUES_MISMATCH) {
            cause = keyMismatch;
        } else if (const char* text = ERR_reason_error_string(code); text && first.empty()) {
            first = text;
        }
    }
    if (!cause.empty()) return cause;
    return first.empty() ? "unknown cause" : first;
}

// `Cannot load the private key from "server.key": No such file or directory`.
TcpSocketError fileError(const std::string& what, const std::string& file,
                         const std::string& cause) {
    return TcpSocketError::tlsError(what + " from \"" + file + "\": " + cause);
}

bool wouldBlock(int code) {
    return code == EAGAIN || code == EWOULDBLOCK || code == EINTR;
}

// The descriptor as OpenSSL's transport: like its own socket transport, but sending with
// MSG_NOSIGNAL, and handing out first what was received before TLS started.
int transportWrite(BIO* bio, const char* data, int size) {
    auto* impl = static_cast<Impl*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    const ssize_t sent = ::send(impl->fd, data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    if (sent < 0 && wouldBlock(errno)) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

int transportRead(BIO* bio, char* data, int size) {
    auto* impl = static_cast<Impl*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (impl->receivedTaken < impl->received.size()) {
        const std::size_t count = std::min(static_cast<std::size_t>(size),
                                           impl->received.size() - impl->receivedTaken);
        std::memcpy(data, impl->received.data() + impl->receivedTaken, count);
        impl->receivedTaken += count;
        if (impl->receivedTaken == impl->received.size()) {
            impl->received = {};
            impl->receivedTaken = 0;
        }
        return static_cast<int>(count);
    }
    const ssize_t count = ::recv(impl->fd, data, static_cast<std::size_t>(size), 0);
    if (count < 0 && wouldBlock(errno)) {
        BIO_set_retry_read(bio);
    }
    return static_cast<int>(count);
}

long transportControl(BIO*, int command, long, void*) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;  // nothing is held back to flush
}

BIO_METHOD* transportMethod() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kavrin fd");
        if (m) {
            BIO_meth_set_write(m, transportWrite);
            BIO_meth_set_read(m, transportRead);
            BIO_meth_set_ctrl(m, transportControl);
        }
        return m;
    }();
    return method;
}

// Deliberately accepts every client certificate: what verifyPeer = false asks for.
int acceptAnyCertificate(int, X509_STORE_CTX*) {
    return 1;
}

bool configure(Impl& impl, TcpSocketError* error) {
    const TlsSettings& s = impl.settings;
    SSL_CTX* ctx = impl.context;
    auto failWith = [&](TcpSocketError e) {
        if (error) {
            *error = std::move(e);
        }
        return false;
    };
    if (s.isServer && (s.certificateChainFile.empty() || s.privateKeyFile.empty())) {
        return failWith(TcpSocketError::badParamError(
            "A TLS server needs a certificate chain file and a private key file"));
    }
    if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1) {
        return failWith(loadError("Cannot require TLS 1.2"));
    }
    SSL_CTX_set_mode(ctx, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // A peer asking for handshake after handshake could keep us busy for nothing.
    SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
    const std::string chain = "Cannot load the certificate chain";
    const std::string key = "Cannot load the private key";
    const std::string trusted = "Cannot load the trusted certificates";
    if (!s.certificateChainFile.empty() &&
        SSL_CTX_use_certificate_chain_file(ctx, s.certificateChainFile.c_str()) != 1) {
        return failWith(fileError(chain, s.certificateChainFile, fileCause("certificate")));
    }
    if (!s.privateKeyFile.empty()) {
        if (SSL_CTX_use_PrivateKey_file(ctx, s.privateKeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
            return failWith(fileError(key, s.privateKeyFile, fileCause("private key")));
        }
        // A key of another algorithm than the certificate's fills a slot of its own and fails
        // only here, as "no certificate assigned".
        if (SSL_CTX_check_private_key(ctx) != 1) {
            ERR_clear_error();
            return failWith(fileError(key, s.privateKeyFile, keyMismatch));
        }
    }
    if (!s.caFile.empty() && SSL_CTX_load_verify_file(ctx, s.caFile.c_str()) != 1) {
        return failWith(fileError(trusted, s.caFile, fileCause("certificate")));
    }
    if (!s.caPath.empty()) {
        // OpenSSL looks in the folder only when it verifies: a wrong one would show as an
        // unknown issuer.
        std::error_code status;
        if (!std::filesystem::is_directory(s.caPath, status)) {
            return failWith(
                fileError(trusted, s.caPath, status ? status.message() : "not a folder"));
        }
        if (SSL_CTX_load_verify_dir(ctx, s.caPath.c_str()) != 1) {
            return failWith(fileError(trusted, s.caPath, fileCause("certificate")));
        }
    }
    if (s.caFile.empty() && s.caPath.empty() && SSL_CTX_set_default_verify_paths(ctx) != 1) {
        return failWith(TcpSocketError::tlsError("Cannot load the system's trusted certificates: " +
                                                 fileCause("certificate")));
    }
    if (!s.isServer) {
        SSL_CTX_set_verify(ctx, s.verifyPeer ? SSL_VERIFY_PEER : SSL_VERIFY_NONE, nullptr);
    } else if (s.requireClientCertificate) {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           s.verifyPeer ? nullptr : acceptAnyCertificate);
    } else {
        SSL_CTX_set_verify(ctx, SSL_VERIFY_NONE, nullptr);
    }
    return true;
}

}  // namespace

std::shared_ptr<TlsSession> TlsSession::create(const TlsSettings& settings,
                                               TcpSocketError* error) {
    ERR_clear_error();
    auto impl = std::make_unique<Impl>();
    impl->settings = settings;
    impl->context = SSL_CTX_new(settings.isServer ? TLS_server_method() : TLS_client_method());
    if (!impl->context) {
        if (error) {
            *error = loadError("Cannot make a TLS context");
        }
        return nullptr;
    }
    if (!configure(*impl, error)) {
        return nullptr;
    }
    return std::shared_ptr<TlsSession>(new TlsSession(std::move(impl)));
}

TlsSession::TlsSession(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

TlsSession::~TlsSession() = default;

bool TlsSession::attach(int fd, std::vector<std::uint8_t> received, const std::string& peerName,
                        TcpSocketError* error) {
    ERR_clear_error();
    Impl& impl = *impl_;
    auto failWith = [&](TcpSocketError e) {
        if (error) {
            *error = std::move(e);
        }
        return false;
    };
    impl.ssl = SSL_new(impl.context);
    BIO* bio = transportMethod() ? BIO_new(transportMethod()) : nullptr;
    if (!impl.ssl || !bio) {
        BIO_free(bio);
        return failWith(loadError("Cannot start a TLS session"));
    }
    BIO_set_data(bio, &impl);
    BIO_set_init(bio, 1);
    SSL_set_bio(impl.ssl, bio, bio);
    impl.fd = fd;
    impl.received = std::move(received);
    impl.receivedTaken = 0;
    if (impl.settings.isServer) {
        SSL_set_accept_state(impl.ssl);
        return true;
    }
    SSL_set_connect_state(impl.ssl);
    const std::string& name = impl.settings.peerName.empty() ? peerName : impl.settings.peerName;
    const bool numeric = !SocketAddress::fromNumericHost(name, 0).empty();
    // SNI carries names only, never addresses.
    if (!numeric && !name.empty() && SSL_set_tlsext_host_name(impl.ssl, name.c_str()) != 1) {
        return failWith(loadError("Cannot send the server name " + name));
    }
    if (!impl.settings.verifyPeer) {
        return true;
    }
    if (name.empty()) {
        return failWith(TcpSocketError::badParamError(
            "No name to check the server's certificate against: set peerName"));
    }
    const int named = numeric ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(impl.ssl), name.c_str())
                              : SSL_set1_host(impl.ssl, name.c_str());
    if (named != 1) {
        return failWith(loadError("Cannot check the server's name " + name));
    }
    return true;
}

double TlsSession::handshakeTimeout() const {
    return impl_->settings.handshakeTimeout;
}

TlsSession::Status TlsSession::handshake(TcpSocketError* error) {
    ERR_clear_error();
    errno = 0;  // so that an end of stream is told from a failed call
    const int result = SSL_do_handshake(impl_->ssl);
    return result == 1 ? Status::done : outcome(result, error);
}

TlsSession::Status TlsSession::read(std::uint8_t* buffer, std::size_t capacity,
                                    std::size_t* count, TcpSocketError* error) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_read_ex(impl_->ssl, buffer, capacity, count);
    return result == 1 ? Status::done : outcome(result, error);
}

TlsSession::Status TlsSession::write(const std::uint8_t* data, std::size_t size,
                                     std::size_t* count, TcpSocketError* error) {
    ERR_clear_error();
    errno = 0;
    const int result = SSL_write_ex(impl_->ssl, data, size, count);
    return result == 1 ? Status::done : outcome(result, error);
}

void TlsSession::shutdown() {
    ERR_clear_error();
    SSL_shutdown(impl_->ssl);
    ERR_clear_error();
}

TlsSession::Status TlsSession::outcome(int result, TcpSocketError* error) {
    const int savedErrno = errno;
    switch (SSL_get_error(impl_->ssl, result)) {
        case SSL_ERROR_WANT_READ:
            return Status::wantRead;
        case SSL_ERROR_WANT_WRITE:
            return Status::wantWrite;
        case SSL_ERROR_ZERO_RETURN:
            return Status::closed;
        case SSL_ERROR_SYSCALL:
            ERR_clear_error();
            if (savedErrno == 0) {
                return Status::closed;
            }
            errno = savedErrno;
            *error = TcpSocketError::errnoError("Error in the TLS transport");
            return Status::failed;
        default: {
            const long verified = SSL_get_verify_result(impl_->ssl);
            *error = TcpSocketError::tlsError(
                lastReason(), verified == X509_V_OK
                                  ? std::nullopt
                                  : std::optional<std::string>(X509_verify_cert_error_string(verified)));
            return Status::failed;
        }
    }
}

}  // namespace kavrin
