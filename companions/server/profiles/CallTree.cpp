#include "companions/server/profiles/CallTree.h"

#include "companions/server/profiles/RandomKey.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace kolvan::server::profiles {

namespace {

constexpr unsigned kFirstSlotBits = 10;

/// The numbers of all nodes but the top's, by parent and then by function: two stable sorts by
/// counting, the less important first.
std::vector<std::uint32_t> byParentAndFunction(const std::vector<CallTree::Node>& nodes) {
    std::vector<std::uint32_t> order(nodes.size() - 1);
    std::iota(order.begin(), order.end(), 1U);
    std::vector<std::uint32_t> sorted(order.size());
    const auto sortBy = [&](auto keyOf) {
        std::uint32_t greatest = 0;
        for (const std::uint32_t number : order) {
            greatest = std::max(greatest, keyOf(nodes[number]));
        }
        std::vector<std::uint32_t> begins(std::size_t{greatest} + 2);
        for (const std::uint32_t number : order) {
            ++begins[std::size_t{keyOf(nodes[number])} + 1];
        }
        std::partial_sum(begins.begin(), begins.end(), begins.begin());
        for (const std::uint32_t number : order) {
            sorted[begins[keyOf(nodes[number])]++] = number;
        }
        order.swap(sorted);
    };
    sortBy([](const CallTree::Node& node) { return node.function; });
    sortBy([](const CallTree::Node& node) { return node.parent; });
    return order;
}

}  // namespace

CallTreeBuilder::CallTreeBuilder() : multiplier(randomKey<std::uint64_t>() | 1) {
    clear();
}

void CallTreeBuilder::clear() {
    nodes.assign(1, {});
    recentChildren.assign(1, kNone);
    hasTwoChildren.assign(1, false);
    slotBits = kFirstSlotBits;
    slots.assign(std::size_t{1} << slotBits, {});
    taken = 0;
    lastStack.clear();
    lastNodes.clear();
}

std::uint32_t CallTreeBuilder::add(std::span<const std::uint32_t> stack) {
    const auto differs =
        std::mismatch(stack.begin(), stack.end(), lastStack.begin(), lastStack.end()).first;
    const auto shared = static_cast<std::size_t>(differs - stack.begin());
    lastStack.assign(stack.begin(), stack.end());
    lastNodes.resize(shared);
    for (std::size_t index = shared; index < stack.size(); ++index) {
        lastNodes.push_back(child(lastNodes.empty() ? 0 : lastNodes.back(), stack[index]));
    }
    return lastNodes.empty() ? 0 : lastNodes.back();
}

std::uint32_t CallTreeBuilder::child(std::uint32_t parent, std::uint32_t function) {
    const std::uint32_t recent = recentChildren[parent];
    if (recent != kNone && nodes[recent].function == function) {
        return recent;
    }
    const auto created = static_cast<std::uint32_t>(nodes.size());
    std::uint32_t found = created;
    if (recent != kNone) {
        // Only those with siblings need the table, and most calls on long ways have none.
        if (!hasTwoChildren[parent]) {
            hasTwoChildren[parent] = true;
            (void)enter(recent, nodes[recent]);
        }
        found = enter(created, {parent, function});
    }
    if (found == created) {
        nodes.push_back({parent, function});
        recentChildren.push_back(kNone);
        hasTwoChildren.push_back(false);
    }
    recentChildren[parent] = found;
    return found;
}

/// Enters a node into the table, unless one with the same parent and function stands there.
/// @return the number of whichever is there afterwards
std::uint32_t CallTreeBuilder::enter(std::uint32_t number, CallTree::Node node) {
    if ((taken + 1) * 2 > slots.size()) {
        enlarge();
    }
    Slot& slot = slotFor(node);
    if (slot.number == kNone) {
        slot = {node, number};
        ++taken;
    }
    return slot.number;
}

/// Where `node` stands, or would stand.
CallTreeBuilder::Slot& CallTreeBuilder::slotFor(const CallTree::Node& node) {
    // Folded first: the multiplication carries upwards only, and the slot is taken from the top
    // bits.
    const std::uint64_t key = (std::uint64_t{node.parent} << 32) | node.function;
    std::size_t place = ((key ^ (key >> 32)) * multiplier) >> (64 - slotBits);
    while (slots[place].number != kNone && slots[place].node != node) {
        place = (place + 1) & (slots.size() - 1);
    }
    return slots[place];
}

void CallTreeBuilder::enlarge() {
    ++slotBits;
    const std::vector<Slot> before =
        std::exchange(slots, std::vector<Slot>(std::size_t{1} << slotBits));
    for (const Slot& slot : before) {
        if (slot.number != kNone) {
            slotFor(slot.node) = slot;
        }
    }
}

CallTreeBuilder::Result CallTreeBuilder::finish() {
    const std::vector<std::uint32_t> children = byParentAndFunction(nodes);
    std::vector<std::uint32_t> begins(nodes.size() + 1);  // of each node's children
    for (const std::uint32_t number : children) {
        ++begins[nodes[number].parent + 1];
    }
    std::partial_sum(begins.begin(), begins.end(), begins.begin());

    Result result;
    result.tree.nodes.clear();
    result.tree.nodes.reserve(nodes.size());
    result.places.resize(nodes.size());
    std::vector<std::uint32_t> open = {0};  // nodes still to be placed, the next one last
    while (!open.empty()) {
        const std::uint32_t number = open.back();
        open.pop_back();
        result.places[number] = static_cast<std::uint32_t>(result.tree.nodes.size());
        result.tree.nodes.push_back({result.places[nodes[number].parent], nodes[number].function});
        for (std::uint32_t index = begins[number + 1]; index > begins[number]; --index) {
            open.push_back(children[index - 1]);
        }
    }
    clear();
    return result;
}

}  // namespace kolvan::server::profiles
