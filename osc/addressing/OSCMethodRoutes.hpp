#pragma once

#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "osc/addressing/OSCAddressSpace.hpp"
#include "osc/codec/OSCMessage.hpp"
#include "osc/codec/OSCTimeTag.hpp"

namespace kavrin {

/// The methods a server routes messages to: an address space for the matching and its order,
/// and each method's handler by its id (the space's own blocks take only the values). Not
/// thread-safe: a server touches it only on its receive queue.
class OSCMethodRoutes {
  public:
    using Handler = std::function<void(const OSCMessage&, const OSCTimeTag&)>;
    using Routes = std::vector<std::shared_ptr<const Handler>>;
    using MethodID = OSCAddressSpace::MethodID;

    /// Registering an address again keeps its id and replaces its handler.
    MethodID add(std::string_view address, Handler handler);
    bool remove(const MethodID& id);
    bool remove(std::string_view address);
    bool empty() const { return handlers_.empty(); }
    /// The handlers of the methods the pattern matches, in the space's order.
    Routes routesFor(const OSCAddressPattern& pattern) const;

  private:
    OSCAddressSpace space_;
    std::unordered_map<MethodID, std::shared_ptr<const Handler>> handlers_;
};

}  // namespace kavrin
