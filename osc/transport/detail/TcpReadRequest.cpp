#include "osc/transport/detail/TcpReadRequest.hpp"

#include <algorithm>

namespace kavrin {

TcpReadRequest::Progress TcpReadRequest::take(InboundBuffer& inbound, std::size_t* added) {
    *added = 0;
    if (kind == Kind::delimiter) {
        return takeToDelimiter(inbound, added);
    }
    const auto available = inbound.view();
    const std::size_t wanted = kind == Kind::exactly ? length - buffer.size() : length;
    const std::size_t count = std::min(wanted, available.size());
    buffer.insert(buffer.end(), available.begin(), available.begin() + count);
    inbound.consume(count);
    *added = count;
    const bool done = kind == Kind::exactly ? buffer.size() == length : count > 0;
    return done ? Progress::done : Progress::needMore;
}

// The delimiter may straddle what was taken before and what arrived since, so the search starts
// a delimiter's length short of the bytes already scanned.
TcpReadRequest::Progress TcpReadRequest::takeToDelimiter(InboundBuffer& inbound,
                                                         std::size_t* added) {
    const auto available = inbound.view();
    const std::size_t before = buffer.size();
    buffer.insert(buffer.end(), available.begin(), available.end());
    const std::size_t from = scanned_ >= delimiter.size() ? scanned_ - (delimiter.size() - 1) : 0;
    const auto found = std::search(buffer.begin() + static_cast<std::ptrdiff_t>(from),
                                   buffer.end(), delimiter.begin(), delimiter.end());
    if (found == buffer.end()) {
        inbound.consume(available.size());
        *added = available.size();
        scanned_ = buffer.size();
        // A delimiter can no longer end within the maximum.
        return buffer.size() >= length ? Progress::maxedOut : Progress::needMore;
    }
    const auto end = static_cast<std::size_t>(found - buffer.begin()) + delimiter.size();
    buffer.resize(end);
    inbound.consume(end - before);
    *added = end - before;
    return end > length ? Progress::maxedOut : Progress::done;
}

}  // namespace kavrin
