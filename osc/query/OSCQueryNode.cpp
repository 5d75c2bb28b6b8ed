#include "osc/query/OSCQueryNode.hpp"

namespace kavrin {

const OSCQueryNode* OSCQueryNode::find(std::string_view path) const {
    if (path == fullPath) return this;
    for (const auto& child : contents) {
        const std::string_view own = child.fullPath;
        if (path == own) return &child;
        if (path.size() > own.size() && path.starts_with(own) && path[own.size()] == '/') {
            return child.find(path);
        }
    }
    return nullptr;
}

std::vector<const OSCQueryNode*> OSCQueryNode::methods() const {
    std::vector<const OSCQueryNode*> found;
    std::vector<const OSCQueryNode*> stack{this};
    while (!stack.empty()) {
        const OSCQueryNode* node = stack.back();
        stack.pop_back();
        if (node->isMethod()) found.push_back(node);
        for (auto child = node->contents.rbegin(); child != node->contents.rend(); ++child) {
            stack.push_back(&*child);
        }
    }
    return found;
}

}  // namespace kavrin
