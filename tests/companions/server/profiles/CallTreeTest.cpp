#include "companions/server/profiles/CallTree.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <utility>
#include <vector>

namespace kolvan::server::profiles {
namespace {

using Stack = std::vector<std::uint32_t>;

/// The functions on the way from the top to a node.
Stack wayTo(const CallTree& tree, std::uint32_t node) {
    Stack way;
    for (; node != 0; node = tree.nodes[node].parent) {
        way.insert(way.begin(), tree.nodes[node].function);
    }
    return way;
}

TEST(CallTreeTest, EmptyStackIsTheTop) {
    CallTreeBuilder builder;

    EXPECT_EQ(0U, builder.add({}));
    EXPECT_EQ(1U, builder.finish().tree.nodes.size());
}

TEST(CallTreeTest, SameStackIsTheSameNode) {
    CallTreeBuilder builder;

    const std::uint32_t first = builder.add(Stack{1, 2, 3});
    (void)builder.add(Stack{1, 4});

    EXPECT_EQ(first, builder.add(Stack{1, 2, 3}));
    EXPECT_EQ(5U, builder.finish().tree.nodes.size());
}

TEST(CallTreeTest, OrderOfTheNodesIsThatOfAWalk) {
    CallTreeBuilder builder;
    (void)builder.add(Stack{2, 1});
    (void)builder.add(Stack{1, 3});
    (void)builder.add(Stack{2, 0});

    const CallTree tree = builder.finish().tree;

    std::vector<Stack> ways;
    for (std::uint32_t node = 0; node < tree.nodes.size(); ++node) {
        ways.push_back(wayTo(tree, node));
    }
    EXPECT_EQ((std::vector<Stack>{{}, {1}, {1, 3}, {2}, {2, 0}, {2, 1}}), ways);
}

TEST(CallTreeTest, EachOfManyStacksIsFoundAtItsPlace) {
    std::mt19937 random;  // always the same numbers
    std::set<Stack> stacks;
    for (int number = 0; number < 20'000; ++number) {
        Stack stack(random() % 12);
        for (std::uint32_t& function : stack) {
            function = static_cast<std::uint32_t>(random() % 9);
        }
        stacks.insert(stack);
    }
    CallTreeBuilder builder;
    std::vector<std::pair<Stack, std::uint32_t>> nodes;
    for (const Stack& stack : stacks) {
        nodes.emplace_back(stack, builder.add(stack));
    }

    const CallTreeBuilder::Result result = builder.finish();

    std::set<Stack> ways;
    for (std::uint32_t node = 0; node < result.tree.nodes.size(); ++node) {
        EXPECT_LE(result.tree.nodes[node].parent, node);
        EXPECT_TRUE(ways.insert(wayTo(result.tree, node)).second) << node;
    }
    for (const auto& [stack, node] : nodes) {
        ASSERT_EQ(stack, wayTo(result.tree, result.places[node]));
    }
}

TEST(CallTreeTest, FinishedBuilderBeginsAnew) {
    CallTreeBuilder builder;
    (void)builder.add(Stack{1, 2});
    (void)builder.finish();

    (void)builder.add(Stack{1, 2});

    EXPECT_EQ(3U, builder.finish().tree.nodes.size());
}

}  // namespace
}  // namespace kolvan::server::profiles
