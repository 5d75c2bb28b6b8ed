#pragma once

#include <algorithm>
#include <any>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "osc/transport/SocketAddress.hpp"

namespace kavrin {

/// The datagrams a UdpSocket read in one turn, in the order read, their bytes back to back in one
/// buffer: one allocation for the block rather than one per datagram, and a decoder may keep
/// what it reads as a share of that buffer instead of a copy. A plain value, moved from the
/// socket to its delegate; use it on one thread at a time.
class UdpDatagramBlock {
  public:
    struct Datagram {
        std::size_t offset = 0;  ///< into the block's buffer
        std::size_t size = 0;
        SocketAddress address;  ///< the sender
        std::any filterContext;  ///< what the receive filter stored; empty without one
    };

    std::size_t size() const { return datagrams_.size(); }
    bool empty() const { return datagrams_.empty(); }
    const Datagram& operator[](std::size_t index) const { return datagrams_[index]; }
    auto begin() const { return datagrams_.begin(); }
    auto end() const { return datagrams_.end(); }

    /// The datagram's bytes, valid while the block or a share of its buffer lives.
    std::span<const std::uint8_t> bytes(const Datagram& datagram) const {
        return {buffer_->data() + datagram.offset, datagram.size};
    }
    /// The datagram's bytes as a buffer of their own that keeps the whole block's alive.
    std::shared_ptr<const std::uint8_t[]> share(const Datagram& datagram) const {
        return {buffer_, buffer_->data() + datagram.offset};
    }

    /// Keeps the block counted in its socket's receive backlog (UdpSocket::setMaxReceiveBacklog)
    /// while the hold lives, as the block itself is while it or a copy lives: a delegate that
    /// passes the block's work on to another queue passes a hold with it. Empty for a block no
    /// socket made.
    std::shared_ptr<const void> hold() const { return hold_; }

    /// Appends a copy of `bytes`. The first datagram allocates the buffer for a block of its
    /// like, up to a bound: a block of the largest datagrams grows as they come.
    // Inlined into the socket's read loop, where a call a datagram is a share of a drain.
    [[gnu::always_inline]] void add(std::span<const std::uint8_t> bytes,
                                    const SocketAddress& address, std::any filterContext = {}) {
        if (!buffer_) {
            constexpr std::size_t reserveBound = 64 * 1024;
            buffer_ = std::make_shared<std::vector<std::uint8_t>>();
            buffer_->reserve(
                std::min(bytes.size() * expected, std::max(reserveBound, bytes.size())));
            datagrams_.reserve(expected);
        }
        const std::size_t offset = buffer_->size();
        buffer_->insert(buffer_->end(), bytes.begin(), bytes.end());
        // Made where it is kept, not copied in from a temporary: a drain's cost per datagram.
        Datagram& datagram = datagrams_.emplace_back();
        datagram.offset = offset;
        datagram.size = bytes.size();
        datagram.address = address;
        if (filterContext.has_value()) datagram.filterContext = std::move(filterContext);
    }

    /// The datagrams a socket gathers into one block at most: enough that handing a block on
    /// costs little per datagram, few enough that the first of a flood do not wait for the last.
    static constexpr std::size_t expected = 256;

  private:
    friend class UdpSocket;

    // What the block counts for in its socket's backlog: its bytes and a share for each
    // datagram's record and what a decoder makes of it.
    std::size_t weight() const {
        return (buffer_ ? buffer_->size() : 0) + datagrams_.size() * 256;
    }

    // Shared, never grown once handed on: every share points into it.
    std::shared_ptr<std::vector<std::uint8_t>> buffer_;
    std::vector<Datagram> datagrams_;
    std::shared_ptr<const void> hold_;
};

}  // namespace kavrin
