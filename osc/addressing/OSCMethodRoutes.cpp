#include "osc/addressing/OSCMethodRoutes.hpp"

namespace kavrin {

OSCMethodRoutes::MethodID OSCMethodRoutes::add(std::string_view address, Handler handler) {
    const MethodID id = space_.registerMethod(address, nullptr);
    // The root registers nothing: its id matches no message and cannot be removed.
    if (space_.methodID(address))
        handlers_[id] = std::make_shared<const Handler>(std::move(handler));
    return id;
}

bool OSCMethodRoutes::remove(const MethodID& id) {
    if (!space_.unregister(id)) return false;
    handlers_.erase(id);
    return true;
}

bool OSCMethodRoutes::remove(std::string_view address) {
    const auto id = space_.methodID(address);
    return id && remove(*id);
}

OSCMethodRoutes::Routes OSCMethodRoutes::routesFor(const OSCAddressPattern& pattern) const {
    Routes routes;
    for (const auto& id : space_.methodIDs(pattern)) {
        if (const auto found = handlers_.find(id); found != handlers_.end()) {
            routes.push_back(found->second);
        }
    }
    return routes;
}

}  // namespace kavrin
