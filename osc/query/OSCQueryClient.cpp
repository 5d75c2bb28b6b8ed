#include "osc/query/OSCQueryClient.hpp"

#include <atomic>
#include <mutex>

#include "osc/codec/OSCError.hpp"
#include "osc/query/detail/HttpClient.hpp"
#include "osc/query/detail/OSCQueryJson.hpp"
#include "osc/stream/OSCStreamClient.hpp"
#include "osc/transport/OSCClient.hpp"
#include "osc/transport/TcpSocketError.hpp"

namespace kavrin {

using detail::HttpClient;
using detail::Json;

namespace {

// Why a response carries no JSON to read: the transport's error, or the status with the
// server's own ERROR text when it gave one.
std::string problemOf(const HttpClient::Response& response) {
    if (!response.error.empty()) return response.error;
    if (response.status == 200) return {};
    std::string text = "HTTP " + std::to_string(response.status);
    const Json body = Json::parse(response.body, nullptr, false);
    if (body.is_object() && body.contains("ERROR") && body["ERROR"].is_string()) {
        text += ": " + body["ERROR"].get<std::string>();
    }
    return text;
}

// The JSON of a 200 response, read by `read`; its result or the reason there is none.
template <class T, class Read>
std::pair<std::optional<T>, std::string> readBody(const HttpClient::Response& response, Read read) {
    if (auto problem = problemOf(response); !problem.empty()) return {std::nullopt, problem};
    const Json json = Json::parse(response.body, nullptr, false);
    if (json.is_discarded()) return {std::nullopt, "the answer is not JSON"};
    try {
        return {read(json), {}};
    } catch (const detail::OSCQueryFormatError& error) {
        return {std::nullopt, error.what()};
    }
}

}  // namespace

struct OSCQueryClient::Impl : std::enable_shared_from_this<Impl> {
    Impl(std::string host, std::uint16_t port, std::shared_ptr<DispatchQueue> queue,
         std::chrono::milliseconds timeout)
        : host(host), queue(std::move(queue)), http(std::move(host), port, timeout) {}

    // Runs `work` on the owner's queue unless the client has gone by then.
    void post(std::function<void()> work) {
        queue->async([alive = alive, work = std::move(work)] {
            if (*alive) work();
        });
    }

    void openSocket() {
        HttpClient::SocketHandlers socket;
        socket.text = [this](std::string text) { pathEvent(text); };
        socket.binary = [this](std::string bytes) {
            try {
                auto message = OSCMessage::decode(
                    std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
                post([this, message = std::move(message)] {
                    if (auto handler = handlers().value) handler(message);
                });
            } catch (const OSCDecodeError&) {
                // A frame that is no message (a bundle, or garbage) carries no value we read.
            }
        };
        socket.closed = [this](std::string reason) {
            post([this, reason] {
                if (auto handler = handlers().close) handler(reason);
            });
        };
        http.openSocket(std::move(socket));
    }

    void pathEvent(const std::string& text) {
        const Json json = Json::parse(text, nullptr, false);
        if (!json.is_object() || !json.contains("COMMAND")) return;
        const auto command = json["COMMAND"];
        const auto data = json.value("DATA", Json());
        if (command == "PATH_REMOVED" && data.is_string()) {
            post([this, path = data.get<std::string>()] {
                if (auto handler = handlers().path) handler(PathEvent::removed, path, nullptr);
            });
        } else if (command == "PATH_ADDED" && data.is_object()) {
            std::optional<OSCQueryNode> node;
            try {
                node = detail::nodeFromJson(data);
            } catch (const detail::OSCQueryFormatError&) {
                return;
            }
            post([this, node = std::move(*node)] {
                if (auto handler = handlers().path) handler(PathEvent::added, node.fullPath, &node);
            });
        }
    }

    struct Handlers {
        ValueHandler value;
        PathHandler path;
        CloseHandler close;
    };
    Handlers handlers() {
        std::lock_guard lock(mutex);
        return current;
    }

    const std::string host;
    const std::shared_ptr<DispatchQueue> queue;
    const std::shared_ptr<std::atomic<bool>> alive = std::make_shared<std::atomic<bool>>(true);
    std::mutex mutex;
    Handlers current;  // guarded by mutex
    // Where send() goes, once HOST_INFO is known; guarded by mutex.
    std::optional<OSCQueryHostInfo> hostInfo;
    std::unique_ptr<OSCClient> udp;
    std::shared_ptr<OSCStreamClient> tcp;
    HttpClient http;  // last: its thread, which calls into the rest, ends first
};

std::shared_ptr<OSCQueryClient> OSCQueryClient::create(std::string host, std::uint16_t port,
                                                       std::shared_ptr<DispatchQueue> queue,
                                                       std::chrono::milliseconds timeout) {
    return std::make_shared<OSCQueryClient>(Private{}, std::move(host), port, std::move(queue), timeout);
}

OSCQueryClient::OSCQueryClient(Private, std::string host, std::uint16_t port,
                               std::shared_ptr<DispatchQueue> queue, std::chrono::milliseconds timeout)
    : impl_(std::make_shared<Impl>(std::move(host), port, std::move(queue), timeout)) {}

OSCQueryClient::~OSCQueryClient() { *impl_->alive = false; }

void OSCQueryClient::fetchTree(TreeHandler handler, std::string path) {
    impl_->http.get(path, [impl = impl_.get(), handler = std::move(handler)](HttpClient::Response response) {
        auto [tree, error] = readBody<OSCQueryNode>(response, detail::nodeFromJson);
        impl->post([handler, tree = std::move(tree), error = std::move(error)] { handler(tree, error); });
    });
}

void OSCQueryClient::fetchHostInfo(HostInfoHandler handler) {
    impl_->http.get("/?HOST_INFO", [impl = impl_.get(), handler = std::move(handler)](HttpClient::Response response) {
        auto [info, error] = readBody<OSCQueryHostInfo>(response, detail::hostInfoFromJson);
        impl->post([handler, info = std::move(info), error = std::move(error)] { handler(info, error); });
    });
}

void OSCQueryClient::setValueHandler(ValueHandler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->current.value = std::move(handler);
}

void OSCQueryClient::setPathHandler(PathHandler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->current.path = std::move(handler);
}

void OSCQueryClient::setCloseHandler(CloseHandler handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->current.close = std::move(handler);
}

void OSCQueryClient::listen(const std::string& path) {
    impl_->openSocket();
    impl_->http.sendText(detail::jsonText(Json{{"COMMAND", "LISTEN"}, {"DATA", path}}));
}

void OSCQueryClient::ignore(const std::string& path) {
    impl_->http.sendText(detail::jsonText(Json{{"COMMAND", "IGNORE"}, {"DATA", path}}));
}

void OSCQueryClient::send(OSCMessage message, std::function<void(const std::string& error)> done) {
    auto finish = [impl = impl_.get(), done](std::string error) {
        if (done) impl->post([done, error] { done(error); });
    };
    auto deliver = [impl = impl_.get(), finish](const OSCMessage& message) {
        std::lock_guard lock(impl->mutex);
        const auto& info = *impl->hostInfo;
        const std::string host = info.oscAddress.empty() ? impl->host : info.oscAddress;
        try {
            if (info.oscTransport == OSCQueryTransport::udp) {
                if (!impl->udp) impl->udp = std::make_unique<OSCClient>();
                impl->udp->send(message, host, info.oscPort);
                return finish({});
            }
            if (!impl->tcp) {
                impl->tcp = OSCStreamClient::create(host, info.oscPort, impl->queue);
                impl->tcp->connect();
            }
            TcpSocketError error;
            if (!impl->tcp->send(message, &error)) return finish(error.description());
            finish({});
        } catch (const OSCEncodeError& error) {
            finish(error.what());
        }
    };
    bool known = false;
    {
        std::lock_guard lock(impl_->mutex);
        known = impl_->hostInfo.has_value();
    }
    if (known) return deliver(message);
    fetchHostInfo([impl = impl_.get(), message = std::move(message), deliver, finish](
                      std::optional<OSCQueryHostInfo> info, const std::string& error) {
        if (!info) return finish("no HOST_INFO: " + error);
        {
            std::lock_guard lock(impl->mutex);
            if (!impl->hostInfo) impl->hostInfo = std::move(info);
        }
        deliver(message);
    });
}

}  // namespace kavrin
