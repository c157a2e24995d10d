#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

namespace kolvan::server::profiles {

/// Call stacks laid over each other from their roots on: one node for each way on which a function
/// was reached.
///
/// The order of the nodes is that of a walk from the top, children in the order of their functions.
/// So a parent stands before its children, and all that a node has called stands right behind it.
struct CallTree {
    static constexpr std::uint32_t kNoFunction = std::numeric_limits<std::uint32_t>::max();

    struct Node {
        std::uint32_t parent = 0;  ///< the top is its own parent
        std::uint32_t function = kNoFunction;

        bool operator==(const Node&) const = default;
    };

    /// The first one is the top, which stands for no function.
    std::vector<Node> nodes = std::vector<Node>(1);
};

/// Puts a tree together from stacks in any order.
class CallTreeBuilder {
public:
    CallTreeBuilder();

    /// Finds or makes the node of a stack, given from its root on. Stacks that share much with the
    /// one before cost little.
    /// @return its number, which `finish()` maps to that in the tree; 0 for an empty stack
    std::uint32_t add(std::span<const std::uint32_t> stack);

    /// Finds or makes the node of a call of `function` from `parent`, a number that this or `add()`
    /// returned; 0 is the top.
    std::uint32_t child(std::uint32_t parent, std::uint32_t function);

    struct Result {
        CallTree tree;
        std::vector<std::uint32_t> places;  ///< number while building -> number in the tree
    };

    /// Brings the nodes into the order of the tree. The builder is empty afterwards.
    Result finish();

private:
    static constexpr std::uint32_t kNone = 0;  // the top is nobody's child

    struct Slot {
        CallTree::Node node;
        std::uint32_t number = kNone;
    };

    void clear();
    std::uint32_t enter(std::uint32_t number, CallTree::Node node);
    Slot& slotFor(const CallTree::Node& node);
    void enlarge();

    const std::uint64_t multiplier;  // random and odd

    std::vector<CallTree::Node> nodes;
    std::vector<std::uint32_t> recentChildren;  // of each node, the one that was asked for last
    std::vector<bool> hasTwoChildren;           // or more: these stand in the table
    std::vector<Slot> slots;
    unsigned slotBits = 0;
    std::size_t taken = 0;  // of the slots

    std::vector<std::uint32_t> lastStack;
    std::vector<std::uint32_t> lastNodes;  // of each call of `lastStack`
};

}  // namespace kolvan::server::profiles
