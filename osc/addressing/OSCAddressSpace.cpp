#include "osc/addressing/OSCAddressSpace.hpp"

#include <algorithm>
#include <random>

#include "osc/codec/OSCMessage.hpp"
#include "osc/dispatch/DispatchQueue.hpp"
#include "osc/pattern/OSCCompiledPattern.hpp"

namespace kavrin {

// MARK: MethodID

OSCAddressSpace::MethodID OSCAddressSpace::MethodID::random() {
    thread_local std::mt19937_64 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(),
                           device(), device(), device(), device()};
        return std::mt19937_64(seed);
    }();
    MethodID id;
    for (std::size_t i = 0; i < id.uuid.size(); i += 8) {
        std::uint64_t bits = generator();
        for (std::size_t j = 0; j < 8; ++j, bits >>= 8) {
            id.uuid[i + j] = static_cast<std::uint8_t>(bits);
        }
    }
    id.uuid[6] = static_cast<std::uint8_t>((id.uuid[6] & 0x0F) | 0x40);  // version 4
    id.uuid[8] = static_cast<std::uint8_t>((id.uuid[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return id;
}

std::string OSCAddressSpace::MethodID::description() const {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(digits[uuid[i] >> 4]);
        text.push_back(digits[uuid[i] & 0x0F]);
    }
    return text;
}

// MARK: Node

OSCAddressSpace::Node::Node(NodeType type, std::string name, std::shared_ptr<const Block> block)
    : nodeType_(type), id_(MethodID::random()), name_(std::move(name)), block_(std::move(block)) {}

OSCAddressSpace::Node* OSCAddressSpace::Node::child(std::string_view name) const {
    // A few children are compared faster than a name is hashed.
    if (children_.size() <= 4) {
        for (const auto& each : children_) {
            if (each->name_ == name) return each.get();
        }
        return nullptr;
    }
    const auto found = childrenByName_.find(name);
    return found == childrenByName_.end() ? nullptr : found->second;
}

void OSCAddressSpace::Node::appendChild(std::unique_ptr<Node> child) {
    childrenByName_.emplace(child->name_, child.get());
    children_.push_back(std::move(child));
}

void OSCAddressSpace::Node::removeChild(const Node* child) {
    childrenByName_.erase(child->name_);
    std::erase_if(children_, [child](const auto& each) { return each.get() == child; });
}

// MARK: OSCAddressSpace

OSCAddressSpace::OSCAddressSpace() : root_(new Node(NodeType::container, std::string(), nullptr)) {}

OSCAddressSpace::~OSCAddressSpace() = default;

OSCAddressSpace::MethodID OSCAddressSpace::registerMethod(std::string_view address, Block block) {
    // Converted to ASCII like any pattern, then taken literally; `path` views `pattern`.
    const OSCAddressPattern pattern(address);
    const auto path = OSCAddressPattern::pathComponents(pattern.rawAddress());
    // Deliberate: the root cannot hold a method; the id returned is stored nowhere.
    if (path.empty()) return MethodID::random();

    const auto shared = std::make_shared<const Block>(std::move(block));
    Node* node = root_.get();
    for (std::size_t i = 0; i < path.size(); ++i) {
        const bool isLast = i + 1 == path.size();
        if (Node* existing = node->child(path[i])) {
            node = existing;
            if (isLast) {
                node->nodeType_ = NodeType::method;
                node->block_ = shared;
            }
            continue;
        }
        // Deliberate: intermediate containers get the block too, though only methods are called.
        auto created = std::unique_ptr<Node>(new Node(
            isLast ? NodeType::method : NodeType::container, std::string(path[i]), shared));
        Node* next = created.get();
        node->appendChild(std::move(created));
        node = next;
    }
    return node->id_;
}

bool OSCAddressSpace::removeMethod(Node& parent, Node& target) {
    if (target.nodeType_ == NodeType::container) return false;
    if (target.children_.empty()) {
        parent.removeChild(&target);  // deliberately leaves an emptied parent in place
    } else {
        target.nodeType_ = NodeType::container;
        target.block_.reset();
    }
    return true;
}

std::pair<OSCAddressSpace::Node*, OSCAddressSpace::Node*> OSCAddressSpace::nodeAt(
    std::string_view address) const {
    // Converted to ASCII like any pattern, then taken literally; `path` views `pattern`.
    const OSCAddressPattern pattern(address);
    const auto path = OSCAddressPattern::pathComponents(pattern.rawAddress());
    if (path.empty()) return {nullptr, nullptr};
    Node* parent = nullptr;
    Node* target = root_.get();
    for (const auto component : path) {
        parent = target;
        target = target->child(component);
        if (!target) return {nullptr, nullptr};
    }
    return {parent, target};
}

bool OSCAddressSpace::unregister(std::string_view address) {
    const auto [parent, target] = nodeAt(address);
    return target != nullptr && removeMethod(*parent, *target);
}

std::optional<OSCAddressSpace::MethodID> OSCAddressSpace::methodID(std::string_view address) const {
    const auto [parent, target] = nodeAt(address);
    if (target == nullptr || target->nodeType_ != NodeType::method) return std::nullopt;
    return target->id_;
}

bool OSCAddressSpace::unregister(const MethodID& id) {
    // Depth-first from the root, in creation order.
    const std::function<bool(Node&)> search = [&](Node& parent) {
        for (const auto& child : parent.children_) {
            if (child->id_ == id) return removeMethod(parent, *child);
            if (search(*child)) return true;
        }
        return false;
    };
    return search(*root_);
}

std::vector<const OSCAddressSpace::Node*> OSCAddressSpace::matchingMethods(
    const OSCAddressPattern& pattern) const {
    std::vector<const Node*> level;
    // Read once per dispatch instead of once per child; the answers are matchComponent's.
    const OSCCompiledPattern compiled(pattern);
    if (compiled.componentCount() == 0) return level;
    level.push_back(root_.get());
    std::vector<const Node*> next;
    for (std::size_t i = 0; i < compiled.componentCount(); ++i) {
        const auto literal = compiled.literalComponent(i);
        next.clear();
        if (literal) next.reserve(level.size());  // at most one child each
        for (const Node* node : level) {
            if (literal) {
                // Plain text matches only its own name, and sibling names are unique.
                if (const Node* child = node->child(*literal)) next.push_back(child);
                continue;
            }
            if (compiled.matchesEveryName(i)) {
                // A lone "*" matches every name.
                for (const auto& child : node->children_) next.push_back(child.get());
                continue;
            }
            for (const auto& child : node->children_) {
                if (compiled.matchesComponent(i, child->name_)) next.push_back(child.get());
            }
        }
        level.swap(next);
        if (level.empty()) break;
    }
    std::erase_if(level, [](const Node* node) { return node->nodeType_ != NodeType::method; });
    return level;
}

std::vector<OSCAddressSpace::MethodID> OSCAddressSpace::methodIDs(
    const OSCAddressPattern& pattern) const {
    std::vector<MethodID> ids;
    for (const Node* node : matchingMethods(pattern)) ids.push_back(node->id_);
    return ids;
}

std::vector<OSCAddressSpace::MethodID> OSCAddressSpace::dispatch(
    const OSCMessage& message, std::shared_ptr<DispatchQueue> queue) {
    const auto methods = matchingMethods(message.addressPattern);
    std::vector<MethodID> ids;
    ids.reserve(methods.size());
    // The blocks are taken now, so a block may change the space (or a later call replace a
    // block) without disturbing this dispatch.
    std::vector<std::shared_ptr<const Block>> blocks;
    blocks.reserve(methods.size());
    for (const Node* node : methods) {
        ids.push_back(node->id_);
        if (node->hasBlock()) blocks.push_back(node->block_);
    }
    if (queue) {
        queue->async([blocks = std::move(blocks), values = message.values] {
            for (const auto& block : blocks) (*block)(values);
        });
    } else {
        for (const auto& block : blocks) (*block)(message.values);
    }
    return ids;
}

}  // namespace kavrin

std::size_t std::hash<kavrin::OSCAddressSpace::MethodID>::operator()(
    const kavrin::OSCAddressSpace::MethodID& id) const noexcept {
    std::size_t value = 0;
    for (std::uint8_t byte : id.uuid) value = value * 131 + byte;
    return value;
}
