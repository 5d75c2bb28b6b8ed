// The only file of the server side that sees Boost.Beast, which is heavy to compile.
#include "osc/query/detail/HttpService.hpp"

#include <atomic>
#include <deque>
#include <map>
#include <optional>
#include <system_error>
#include <thread>

#include "osc/query/detail/BeastSupport.hpp"
#include "support/Logger.hpp"

namespace kavrin::detail {

namespace {

const LogCategory& log() {
    static const LogCategory category = Logger::shared().category("query");
    return category;
}

std::string errorBody(std::string_view text) {
    std::string body = "{\"ERROR\": \"";
    for (const char c : text) {
        if (c == '"' || c == '\\') body += '\\';
        body += c;
    }
    return body + "\"}";
}

}  // namespace

// A connection of either kind, owned by the core's table while it is open.
class Connection {
  public:
    explicit Connection(HttpService::PeerID id) : id(id) {}
    virtual ~Connection() = default;
    /// Closes the socket at once; the operations in flight end with errors.
    virtual void shut() = 0;
    /// Whether it may be closed to make room: no request is being answered.
    virtual bool evictable() const { return false; }
    const HttpService::PeerID id;
};

struct HttpService::Core : std::enable_shared_from_this<Core> {
    Core(Handlers handlers, Limits limits) : handlers(std::move(handlers)), limits(limits) {}

    void run() { runIoContext(ioc, "HTTP service"); }

    void accept();
    void admit(tcp::socket socket);
    void remove(PeerID id) {
        if (connections.erase(id)) count = connections.size();
    }
    void add(const std::shared_ptr<Connection>& connection) {
        connections.emplace(connection->id, connection);
        count = connections.size();
    }
    template <class Type>
    std::shared_ptr<Type> find(PeerID id) {
        const auto found = connections.find(id);
        return found == connections.end() ? nullptr : std::dynamic_pointer_cast<Type>(found->second);
    }

    const Handlers handlers;
    const Limits limits;
    asio::io_context ioc{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{ioc.get_executor()};
    tcp::acceptor acceptor{ioc};
    std::thread thread;
    // On the service's thread.
    std::map<PeerID, std::shared_ptr<Connection>> connections;  // in the order they came
    PeerID nextID = 1;
    std::atomic<std::size_t> count{0};
};

namespace {

using Core = HttpService::Core;

class WebSocketConnection final : public Connection,
                                  public std::enable_shared_from_this<WebSocketConnection> {
  public:
    WebSocketConnection(Core& core, HttpService::PeerID id, beast::tcp_stream stream)
        : Connection(id), core_(core), ws_(std::move(stream)) {}

    void start(http::request<http::string_body> request, HttpRequestInfo info) {
        ws_.set_option(websocket::stream_base::timeout::suggested(beast::role_type::server));
        ws_.set_option(websocket::stream_base::decorator(
            [](websocket::response_type& response) { response.set(http::field::server, "Kavrin"); }));
        ws_.read_message_max(core_.limits.messageBytes);
        beast::get_lowest_layer(ws_).expires_never();
        request_ = std::move(request);
        ws_.async_accept(request_, [self = shared_from_this(), info = std::move(info)](ErrorCode error) {
            if (error) return self->end();
            self->open_ = true;
            if (self->core_.handlers.opened) self->core_.handlers.opened(self->id, info);
            self->read();
        });
    }

    void send(const HttpService::Frame& frame, bool binary) {
        if (ended_) return;
        if (queued_ + frame->size() > core_.limits.queuedBytes) {
            log().warning("WebSocket peer {} reads too slowly ({} bytes waiting): dropped", id, queued_);
            return shut();
        }
        queue_.emplace_back(frame, binary);
        queued_ += frame->size();
        if (!writing_) write();
    }

    void close(std::string reason) {
        if (ended_ || closing_) return;
        closing_ = true;
        ws_.async_close(websocket::close_reason(websocket::close_code::policy_error, reason),
                        [self = shared_from_this()](ErrorCode) { self->shut(); });
    }

    void shut() override {
        beast::get_lowest_layer(ws_).close();
        end();
    }

  private:
    void read() {
        ws_.async_read(buffer_, [self = shared_from_this()](ErrorCode error, std::size_t) {
            if (error) return self->end();
            std::string data = beast::buffers_to_string(self->buffer_.data());
            self->buffer_.consume(self->buffer_.size());
            const auto& handler =
                self->ws_.got_text() ? self->core_.handlers.text : self->core_.handlers.binary;
            if (handler) handler(self->id, std::move(data));
            if (!self->ended_) self->read();
        });
    }

    void write() {
        writing_ = true;
        ws_.binary(queue_.front().second);
        ws_.async_write(asio::buffer(*queue_.front().first),
                        [self = shared_from_this()](ErrorCode error, std::size_t) {
                            if (self->ended_) return;
                            self->queued_ -= self->queue_.front().first->size();
                            self->queue_.pop_front();
                            self->writing_ = false;
                            if (error) return self->shut();
                            if (!self->queue_.empty()) self->write();
                        });
    }

    void end() {
        if (ended_) return;
        ended_ = true;
        queue_.clear();
        queued_ = 0;
        const auto keep = shared_from_this();  // the table may hold the last reference
        core_.remove(id);
        if (open_ && core_.handlers.closed) core_.handlers.closed(id);
    }

    Core& core_;
    websocket::stream<beast::tcp_stream> ws_;
    http::request<http::string_body> request_;  // read by the handshake in flight
    beast::flat_buffer buffer_;
    std::deque<std::pair<HttpService::Frame, bool>> queue_;
    std::size_t queued_ = 0;
    bool writing_ = false, open_ = false, closing_ = false, ended_ = false;
};

class HttpConnection final : public Connection, public std::enable_shared_from_this<HttpConnection> {
  public:
    HttpConnection(Core& core, HttpService::PeerID id, tcp::socket socket)
        : Connection(id),
          core_(core),
          stream_(std::move(socket)),
          buffer_(core.limits.headerBytes + core.limits.bodyBytes) {}

    void read() {
        parser_.emplace();
        parser_->header_limit(static_cast<std::uint32_t>(core_.limits.headerBytes));
        parser_->body_limit(core_.limits.bodyBytes);
        reading_ = true;
        stream_.expires_after(core_.limits.requestTimeout);
        http::async_read(stream_, buffer_, *parser_,
                         [self = shared_from_this()](ErrorCode error, std::size_t) { self->received(error); });
    }

    bool evictable() const override { return reading_; }
    void shut() override {
        stream_.close();
        core_.remove(id);
    }

  private:
    void received(ErrorCode error) {
        reading_ = false;
        if (error == http::error::header_limit) return answer({431, errorBody("the header is too large")}, false);
        if (error == http::error::body_limit || error == http::error::buffer_overflow) {
            return answer({413, errorBody("the request is too large")}, false);
        }
        if (error && error.category() == ErrorCode(http::error::bad_target).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message) {
            return answer({400, errorBody("a malformed request: " + error.message())}, false);
        }
        if (error) return shut();  // gone, timed out, or closed to make room
        auto request = parser_->release();
        HttpRequestInfo info{std::string(request.method_string()), std::string(request.target()),
                             std::string(request[http::field::origin]), localAddress()};
        if (websocket::is_upgrade(request)) {
            const auto keep = shared_from_this();
            core_.remove(id);
            auto ws = std::make_shared<WebSocketConnection>(core_, id, std::move(stream_));
            core_.add(ws);
            ws->start(std::move(request), std::move(info));
            return;
        }
        keepAlive_ = request.keep_alive();
        version_ = request.version();
        if (request.method() == http::verb::options) return answer({204, {}}, keepAlive_, true);
        if (request.method() != http::verb::get) {
            return answer({405, errorBody("only GET is served")}, false);
        }
        core_.handlers.request(std::move(info), [weakCore = std::weak_ptr<Core>(core_.shared_from_this()),
                                                 id = id](HttpReply reply) {
            const auto core = weakCore.lock();
            if (!core) return;
            Core* raw = core.get();
            asio::post(raw->ioc, [raw, id, reply = std::move(reply)]() mutable {
                if (const auto self = raw->find<HttpConnection>(id)) self->answer(std::move(reply), self->keepAlive_);
            });
        });
    }

    void answer(HttpReply reply, bool keepAlive, bool preflight = false) {
        auto response = std::make_shared<http::response<http::string_body>>(
            static_cast<http::status>(reply.status), version_ ? version_ : 11);
        response->set(http::field::server, "Kavrin");
        response->set(http::field::access_control_allow_origin, "*");
        if (preflight) {
            response->set(http::field::access_control_allow_methods, "GET, OPTIONS");
            response->set(http::field::access_control_allow_headers, "*");
        }
        if (reply.status == 405) response->set(http::field::allow, "GET, OPTIONS");
        if (!reply.body.empty()) response->set(http::field::content_type, "application/json");
        response->body() = std::move(reply.body);
        response->keep_alive(keepAlive);
        response->prepare_payload();
        stream_.expires_after(core_.limits.requestTimeout);
        http::async_write(stream_, *response,
                          [self = shared_from_this(), response, keepAlive](ErrorCode error, std::size_t) {
                              if (error || !keepAlive) return self->shut();
                              self->read();
                          });
    }

    std::string localAddress() const {
        ErrorCode error;
        const auto endpoint = stream_.socket().local_endpoint(error);
        if (error) return {};
        auto address = endpoint.address();
        if (address.is_v6() && address.to_v6().is_v4_mapped()) {
            address = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
        }
        return address.to_string();
    }

    Core& core_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    bool reading_ = false, keepAlive_ = false;
    unsigned version_ = 11;
};

}  // namespace

void HttpService::Core::accept() {
    acceptor.async_accept([this](ErrorCode error, tcp::socket socket) {
        if (error == asio::error::operation_aborted || !acceptor.is_open()) return;
        if (!error) admit(std::move(socket));
        accept();
    });
}

void HttpService::Core::admit(tcp::socket socket) {
    if (connections.size() >= limits.connections) {
        // Room is made by the connection that has waited longest without a request answered.
        std::shared_ptr<Connection> evicted;
        for (const auto& [id, connection] : connections) {
            if (connection->evictable()) {
                evicted = connection;
                break;
            }
        }
        if (!evicted) {
            log().info("{} connections open: one more refused", connections.size());
            return;  // the socket closes as it goes
        }
        evicted->shut();
    }
    auto connection = std::make_shared<HttpConnection>(*this, nextID++, std::move(socket));
    add(connection);
    connection->read();
}

HttpService::HttpService(Handlers handlers, Limits limits)
    : core_(std::make_shared<Core>(std::move(handlers), limits)) {
    core_->thread = std::thread([core = core_.get()] { core->run(); });
}

HttpService::~HttpService() {
    asio::post(core_->ioc, [core = core_.get()] {
        ErrorCode ignored;
        core->acceptor.close(ignored);
        const auto open = core->connections;  // shut() takes each out of the table
        for (const auto& [id, connection] : open) connection->shut();
        core->connections.clear();
        core->count = 0;
    });
    core_->work.reset();
    core_->thread.join();
}

std::uint16_t HttpService::listen(const std::string& address, std::uint16_t port) {
    ErrorCode error;
    const auto ip = asio::ip::make_address(address, error);
    if (error) throw std::system_error(error, "not a numeric address: " + address);
    const tcp::endpoint endpoint(ip, port);
    auto& acceptor = core_->acceptor;
    acceptor.open(endpoint.protocol());
    acceptor.set_option(asio::socket_base::reuse_address(true));
    acceptor.bind(endpoint, error);
    if (error) {
        acceptor.close();
        throw std::system_error(error, "cannot listen on " + address + " port " + std::to_string(port));
    }
    acceptor.listen(asio::socket_base::max_listen_connections);
    const auto bound = acceptor.local_endpoint().port();
    asio::post(core_->ioc, [core = core_.get()] { core->accept(); });
    return bound;
}

void HttpService::send(std::vector<PeerID> peers, Frame frame, bool binary) {
    asio::post(core_->ioc, [core = core_.get(), peers = std::move(peers), frame = std::move(frame), binary] {
        for (const auto peer : peers) {
            if (const auto connection = core->find<WebSocketConnection>(peer)) connection->send(frame, binary);
        }
    });
}

void HttpService::close(PeerID peer, std::string reason) {
    asio::post(core_->ioc, [core = core_.get(), peer, reason = std::move(reason)] {
        if (const auto connection = core->find<WebSocketConnection>(peer)) connection->close(reason);
    });
}

std::size_t HttpService::connectionCount() const { return core_->count; }

}  // namespace kavrin::detail
