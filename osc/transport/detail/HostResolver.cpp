#include "osc/transport/detail/HostResolver.hpp"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/dispatch/GlobalQueue.hpp"
#include "osc/transport/detail/InterfaceAddresses.hpp"

namespace kavrin {

void HostResolver::resolve(const std::string& host, std::uint16_t port,
                           std::shared_ptr<DispatchQueue> queue, Completion completion) const {
    if (host.empty()) {
        queue->async([completion = std::move(completion)] {
            completion({}, SocketError::unusableParam(
                               "The host param is nil. Should be domain name or IP address "
                               "string."));
        });
        return;
    }
    GlobalQueue::get()->async([resolver = *this, host, port, queue = std::move(queue),
                               completion = std::move(completion)] {
        std::vector<SocketAddress> addresses;
        std::optional<SocketError> error;
        if (InterfaceAddresses::isLoopbackName(host)) {
            const auto loopback = InterfaceAddresses::loopback(port);
            addresses = {loopback.ipv4, loopback.ipv6};
        } else {
            addrinfo hints{};
            hints.ai_family = AF_UNSPEC;
            hints.ai_socktype = resolver.socketType_;
            hints.ai_protocol = resolver.protocol_;
            addrinfo* results = nullptr;
            const std::string service = std::to_string(port);
            const int status = ::getaddrinfo(host.c_str(), service.c_str(), &hints, &results);
            if (status != 0) {
                error = SocketError::netDBError(status);
            } else {
                for (addrinfo* ai = results; ai; ai = ai->ai_next) {
                    if (ai->ai_family == AF_INET) {
                        addresses.emplace_back(ai->ai_addr, sizeof(sockaddr_in));
                    } else if (ai->ai_family == AF_INET6) {
                        // Deliberately only IPv6 results get the port filled in when missing.
                        SocketAddress address(ai->ai_addr, sizeof(sockaddr_in6));
                        addresses.push_back(address.port() == 0 ? address.withPort(port) : address);
                    }
                }
                ::freeaddrinfo(results);
                if (addresses.empty()) {
                    error = SocketError::netDBError(EAI_FAIL);
                }
            }
        }
        queue->async(
            [completion, addresses = std::move(addresses), error = std::move(error)]() mutable {
                completion(std::move(addresses), std::move(error));
            });
    });
}

}  // namespace kavrin
