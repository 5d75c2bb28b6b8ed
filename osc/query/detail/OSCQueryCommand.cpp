#include "osc/query/detail/OSCQueryCommand.hpp"

#include "osc/query/detail/OSCQueryJson.hpp"
#include "osc/query/detail/OSCQueryTarget.hpp"

namespace kavrin::detail {

std::variant<OSCQueryCommand, std::string> OSCQueryCommand::parse(std::string_view text) {
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded()) return std::string("not JSON");
    if (!json.is_object()) return std::string("not a JSON object");
    const auto command = json.find("COMMAND");
    const auto data = json.find("DATA");
    if (command == json.end() || !command->is_string()) return std::string("no COMMAND");
    if (data == json.end() || !data->is_string()) return std::string("no path in DATA");
    const auto& name = command->get_ref<const std::string&>();
    if (name != "LISTEN" && name != "IGNORE") return "an unknown command " + name;
    const auto& path = data->get_ref<const std::string&>();
    if (auto problem = OSCQueryTarget::problem(path); !problem.empty()) return problem;
    return OSCQueryCommand{name == "LISTEN" ? Kind::listen : Kind::ignore, path};
}

}  // namespace kavrin::detail
