#include "basekit2/generic_iterator.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace {

using basekit2::generic_iterator_t;
using basekit2::make_generic_iterator;
using basekit2::range_iterator_t;

std::vector<std::string> walkOf(generic_iterator_t<std::string>& iterator) {
    std::vector<std::string> values;
    for (; !iterator.at_end(); iterator.next()) {
        values.push_back(iterator.get());
    }
    return values;
}

template <typename Container>
concept CanBeWalked = requires(Container&& values) {
    make_generic_iterator(std::forward<Container>(values));
};

TEST(GenericIteratorTest, WalksEveryValueInOrder) {
    const std::vector<std::string> values{"b", "", "a", "b"};

    generic_iterator_t<std::string> iterator(range_iterator_t(values.begin(), values.end()));

    EXPECT_EQ(values, walkOf(iterator));
    EXPECT_TRUE(iterator.at_end());
}

TEST(GenericIteratorTest, EmptyRangeIsAtItsEnd) {
    const std::vector<std::string> none;

    const generic_iterator_t<std::string> iterator(range_iterator_t(none.begin(), none.end()));

    EXPECT_TRUE(iterator.at_end());
}

TEST(GenericIteratorTest, TakesAnyKindOfRange) {
    const std::list<std::string> values{"one", "two"};

    generic_iterator_t<std::string> iterator(range_iterator_t(values.begin(), values.end()));

    EXPECT_EQ((std::vector<std::string>{"one", "two"}), walkOf(iterator));
}

TEST(GenericIteratorTest, IsMadeOfAWholeContainer) {
    const std::vector<std::string> values{"b", "", "a"};

    generic_iterator_t<std::string> iterator = make_generic_iterator(values);

    EXPECT_EQ(values, walkOf(iterator));
}

TEST(GenericIteratorTest, IsNotMadeOfATemporaryContainer) {
    EXPECT_TRUE(CanBeWalked<const std::vector<std::string>&>);
    EXPECT_FALSE(CanBeWalked<std::vector<std::string>>);
}

TEST(GenericIteratorTest, WalksACopyOfTheIteratorItIsGiven) {
    const std::vector<std::string> values{"one", "two"};
    range_iterator_t original(values.begin(), values.end());
    generic_iterator_t<std::string> iterator(original);

    original.next();
    original.next();

    EXPECT_EQ(values, walkOf(iterator));
    EXPECT_TRUE(original.at_end());
}

TEST(GenericIteratorTest, LeavesTheOriginalWhereItWas) {
    const std::vector<std::string> values{"one", "two"};
    range_iterator_t original(values.begin(), values.end());
    generic_iterator_t<std::string> iterator(original);

    (void)walkOf(iterator);

    EXPECT_EQ("one", original.get());
}

}  // namespace
