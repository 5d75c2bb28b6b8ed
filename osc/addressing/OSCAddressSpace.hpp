#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "osc/codec/OSCValueList.hpp"
#include "osc/pattern/OSCAddressPattern.hpp"

namespace kavrin {

class DispatchQueue;
struct OSCMessage;

// A tree of named nodes mapping concrete OSC method addresses ("/synth/1/gain") to handler
// blocks; a message is dispatched to every method whose address its pattern matches.
// No lock of its own: call it from one thread or serialise the calls. Blocks run on the queue
// given to dispatch() (all of one dispatch in one work item, in order) or, without a queue,
// on the calling thread before dispatch() returns.
class OSCAddressSpace {
  public:
    // A method's handler; it receives the message's values.
    using Block = std::function<void(const OSCValueList&)>;

    // The identity of a node: a random (version 4) UUID.
    struct MethodID {
        std::array<std::uint8_t, 16> uuid{};

        static MethodID random();
        // The canonical 36-character upper-case form, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
        std::string description() const;

        friend bool operator==(const MethodID&, const MethodID&) = default;
        friend auto operator<=>(const MethodID&, const MethodID&) = default;
    };

    // One path component of the tree. A method node may have children; a container may hold a
    // block that is never called (see registerMethod).
    class Node {
      public:
        enum class NodeType { container, method };

        NodeType nodeType() const { return nodeType_; }
        const MethodID& id() const { return id_; }
        const std::string& name() const { return name_; }
        bool hasBlock() const { return block_ && *block_; }
        // In order of creation.
        const std::vector<std::unique_ptr<Node>>& children() const { return children_; }

      private:
        friend class OSCAddressSpace;
        Node(NodeType type, std::string name, std::shared_ptr<const Block> block);

        Node* child(std::string_view name) const;
        void appendChild(std::unique_ptr<Node> child);
        void removeChild(const Node* child);

        NodeType nodeType_;
        MethodID id_;
        std::string name_;
        // Shared so that a queued dispatch keeps the block it found even if it is replaced.
        std::shared_ptr<const Block> block_;
        std::vector<std::unique_ptr<Node>> children_;
        // Sibling names are unique (registration reuses a child of the same name), so a name
        // finds at most one child.
        std::unordered_map<std::string_view, Node*> childrenByName_;
    };
    using NodeType = Node::NodeType;

    OSCAddressSpace();
    ~OSCAddressSpace();
    OSCAddressSpace(const OSCAddressSpace&) = delete;
    OSCAddressSpace& operator=(const OSCAddressSpace&) = delete;

    // Registers `block` at the concrete `address` (wildcards are taken literally: "/a/*" makes
    // a node named "*"). Registering an address again keeps its id and replaces its block; a
    // container at that address becomes a method and keeps its children. The root ("" or "/")
    // registers nothing and returns an id that is stored nowhere. (Named registerMethod because
    // "register" is a keyword.)
    MethodID registerMethod(std::string_view address, Block block);

    // Removes the method at `address`: a leaf goes, a method with children turns back into a
    // container. False when there is no method there. Containers left empty are kept.
    bool unregister(std::string_view address);
    // The same by id, searching the whole tree.
    bool unregister(const MethodID& id);

    // The id of the method registered at exactly this concrete address, if one is.
    std::optional<MethodID> methodID(std::string_view address) const;

    // The ids of the methods whose addresses match `pattern`, level by level in creation order.
    std::vector<MethodID> methodIDs(const OSCAddressPattern& pattern) const;

    // Calls the block of every method matching the message's pattern, in methodIDs() order,
    // and returns their ids. With a queue, one work item is posted and the ids are returned
    // before any block runs; the work item owns a copy of the values. Without one, the blocks
    // run on this thread before the call returns.
    std::vector<MethodID> dispatch(const OSCMessage& message,
                                   std::shared_ptr<DispatchQueue> queue = nullptr);

    const Node& root() const { return *root_; }

  private:
    // Removes a leaf method or turns a method with children into a container.
    static bool removeMethod(Node& parent, Node& target);
    // The node at a concrete address and its parent; nulls when there is none.
    std::pair<Node*, Node*> nodeAt(std::string_view address) const;
    std::vector<const Node*> matchingMethods(const OSCAddressPattern& pattern) const;

    std::unique_ptr<Node> root_;
};

}  // namespace kavrin

template <>
struct std::hash<kavrin::OSCAddressSpace::MethodID> {
    std::size_t operator()(const kavrin::OSCAddressSpace::MethodID& id) const noexcept;
};
