#include "tools/common/Advertising.hpp"

#include "support/Logger.hpp"

namespace kavrin::tools {

void logAdvertising(const OSCZeroconfStatus& status, const std::string&) {
    const auto log = Logger::shared().category("discovery");
    if (status.state == OSCZeroconfStatus::State::running) {
        log.info("{}", status.text);
    } else if (status.state != OSCZeroconfStatus::State::connecting) {
        log.warning("not advertised: {}", status.text);
    }
}

}  // namespace kavrin::tools
