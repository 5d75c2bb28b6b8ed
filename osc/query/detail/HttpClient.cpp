// The only file of the client side that sees Boost.Beast, which is heavy to compile.
#include "osc/query/detail/HttpClient.hpp"

#include <deque>
#include <optional>
#include <thread>

#include "osc/query/detail/BeastSupport.hpp"
#include "support/Logger.hpp"

namespace kavrin::detail {

namespace {

constexpr std::size_t maximumBody = 16 * 1024 * 1024;
constexpr std::size_t maximumMessage = 16 * 1024 * 1024;

// One GET on a connection of its own: resolve, connect, write, read, close.
class Fetch : public std::enable_shared_from_this<Fetch> {
  public:
    Fetch(asio::io_context& ioc, std::string host, std::uint16_t port, std::string target,
          std::chrono::milliseconds timeout, std::function<void(HttpClient::Response)> handler)
        : resolver_(ioc), stream_(ioc), host_(std::move(host)), port_(port), timeout_(timeout),
          handler_(std::move(handler)) {
        request_.method(http::verb::get);
        request_.target(target);
        request_.version(11);
        request_.set(http::field::host, host_ + ":" + std::to_string(port_));
        request_.set(http::field::user_agent, "Kavrin");
        request_.keep_alive(false);
        parser_.body_limit(maximumBody);
    }

    void start() {
        stream_.expires_after(timeout_);
        resolver_.async_resolve(host_, std::to_string(port_),
                                [self = shared_from_this()](ErrorCode error, tcp::resolver::results_type found) {
                                    if (error) return self->fail("cannot find " + self->host_, error);
                                    self->stream_.async_connect(found, [self](ErrorCode error, const tcp::endpoint&) {
                                        if (error) return self->fail("cannot connect", error);
                                        self->write();
                                    });
                                });
    }

  private:
    void write() {
        http::async_write(stream_, request_, [self = shared_from_this()](ErrorCode error, std::size_t) {
            if (error) return self->fail("cannot send the request", error);
            http::async_read(self->stream_, self->buffer_, self->parser_,
                             [self](ErrorCode error, std::size_t) {
                                 if (error) return self->fail("no answer", error);
                                 ErrorCode ignored;
                                 self->stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
                                 auto response = self->parser_.release();
                                 self->handler_({response.result_int(), std::move(response.body()), {}});
                             });
        });
    }

    void fail(const std::string& what, const ErrorCode& error) {
        handler_({0, {}, what + " (" + host_ + " port " + std::to_string(port_) + "): " +
                             (error == beast::error::timeout ? "timed out" : error.message())});
    }

    tcp::resolver resolver_;
    beast::tcp_stream stream_;
    const std::string host_;
    const std::uint16_t port_;
    const std::chrono::milliseconds timeout_;
    const std::function<void(HttpClient::Response)> handler_;
    http::request<http::empty_body> request_;
    beast::flat_buffer buffer_;
    http::response_parser<http::string_body> parser_;
};

}  // namespace

struct HttpClient::Core : std::enable_shared_from_this<Core> {
    Core(std::string host, std::uint16_t port, std::chrono::milliseconds timeout)
        : host(std::move(host)), port(port), timeout(timeout) {}

    void run() { runIoContext(ioc, "HTTP client"); }

    using Socket = websocket::stream<beast::tcp_stream>;

    // The WebSocket, on the client's thread. Operations hold the socket they started on, so a
    // socket ended (and replaced) is kept until they have unwound, and reports nothing more.
    void open() {
        if (ws) return;
        auto socket = ws = std::make_shared<Socket>(ioc);
        socket->read_message_max(maximumMessage);
        auto resolver = std::make_shared<tcp::resolver>(ioc);
        beast::get_lowest_layer(*socket).expires_after(timeout);
        resolver->async_resolve(host, std::to_string(port), [this, socket, resolver](ErrorCode error, tcp::resolver::results_type found) {
            if (error) return closed(socket, "cannot find " + host + ": " + error.message());
            beast::get_lowest_layer(*socket).async_connect(found, [this, socket](ErrorCode error, const tcp::endpoint&) {
                if (error) return closed(socket, "cannot connect: " + error.message());
                beast::get_lowest_layer(*socket).expires_never();
                socket->set_option(websocket::stream_base::timeout::suggested(beast::role_type::client));
                socket->async_handshake(host + ":" + std::to_string(port), "/", [this, socket](ErrorCode error) {
                    if (error) return closed(socket, "no WebSocket: " + error.message());
                    if (socket != ws) return;
                    open_ = true;
                    if (handlers.opened) handlers.opened();
                    read(socket);
                    if (!outgoing.empty()) write(socket);
                });
            });
        });
    }

    void read(const std::shared_ptr<Socket>& socket) {
        socket->async_read(buffer, [this, socket](ErrorCode error, std::size_t) {
            if (error) {
                return closed(socket, error == websocket::error::closed
                                          ? "closed by the server: " + std::string(socket->reason().reason.data(), socket->reason().reason.size())
                                          : error.message());
            }
            if (socket != ws) return;
            std::string data = beast::buffers_to_string(buffer.data());
            buffer.consume(buffer.size());
            const auto& handler = socket->got_text() ? handlers.text : handlers.binary;
            if (handler) handler(std::move(data));
            read(socket);
        });
    }

    void send(std::string text) {
        outgoing.push_back(std::move(text));
        if (open_ && outgoing.size() == 1) write(ws);
    }

    void write(const std::shared_ptr<Socket>& socket) {
        socket->text(true);
        socket->async_write(asio::buffer(outgoing.front()), [this, socket](ErrorCode error, std::size_t) {
            if (error || socket != ws) return;  // the read reports the end
            outgoing.pop_front();
            if (!outgoing.empty()) write(socket);
        });
    }

    void closed(const std::shared_ptr<Socket>& socket, std::string reason) {
        if (socket != ws) return;
        beast::get_lowest_layer(*socket).close();
        ws.reset();
        open_ = false;
        outgoing.clear();
        buffer.consume(buffer.size());
        if (handlers.closed) handlers.closed(std::move(reason));
    }

    const std::string host;
    const std::uint16_t port;
    const std::chrono::milliseconds timeout;
    asio::io_context ioc{1};
    asio::executor_work_guard<asio::io_context::executor_type> work{ioc.get_executor()};
    std::thread thread;
    // On the client's thread.
    SocketHandlers handlers;
    std::shared_ptr<Socket> ws;
    bool open_ = false;
    beast::flat_buffer buffer;
    std::deque<std::string> outgoing;
};

HttpClient::HttpClient(std::string host, std::uint16_t port, std::chrono::milliseconds timeout)
    : core_(std::make_shared<Core>(std::move(host), port, timeout)) {
    core_->thread = std::thread([core = core_.get()] { core->run(); });
}

HttpClient::~HttpClient() {
    asio::post(core_->ioc, [core = core_.get()] {
        core->handlers = {};
        if (core->ws) beast::get_lowest_layer(*core->ws).close();
    });
    core_->work.reset();
    // Fetches still in flight end with their time-outs at the latest; stopping is quicker.
    core_->ioc.stop();
    core_->thread.join();
}

void HttpClient::get(std::string target, std::function<void(Response)> handler) {
    asio::post(core_->ioc, [core = core_.get(), target = std::move(target), handler = std::move(handler)] {
        std::make_shared<Fetch>(core->ioc, core->host, core->port, target, core->timeout, handler)->start();
    });
}

void HttpClient::openSocket(SocketHandlers handlers) {
    asio::post(core_->ioc, [core = core_.get(), handlers = std::move(handlers)] {
        core->handlers = handlers;
        core->open();
    });
}

void HttpClient::sendText(std::string text) {
    asio::post(core_->ioc, [core = core_.get(), text = std::move(text)] { core->send(text); });
}

}  // namespace kavrin::detail
