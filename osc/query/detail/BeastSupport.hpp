#pragma once

// What the two files that hold Boost.Beast share (HttpService.cpp, HttpClient.cpp); heavy to
// compile, so included by them only. Internal to the query layer.

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <exception>

#include "support/Logger.hpp"

namespace kavrin::detail {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using ErrorCode = beast::error_code;

/// Runs the io_context on the calling thread until it has no more work; a handler that throws
/// is logged and the loop goes on, so that one bad moment never ends every connection.
inline void runIoContext(asio::io_context& ioc, const char* owner) {
    for (;;) {
        try {
            ioc.run();
            return;
        } catch (const std::exception& error) {
            Logger::shared().category("query").error("the {}'s thread caught: {}", owner, error.what());
        }
    }
}

}  // namespace kavrin::detail
