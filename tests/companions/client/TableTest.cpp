#include "companions/client/Table.h"

#include <gtest/gtest.h>

namespace kolvan::client {
namespace {

TEST(TableTest, ColumnsAreAsWideAsTheirWidestCell) {
    Table table({{"NAME"}, {"N", Table::Side::Right}, {"LAST"}});
    table.add({"é", "5", "x"});
    table.add({"longer", "1234", ""});

    EXPECT_EQ(
        "NAME       N  LAST\n"
        "é          5  x\n"
        "longer  1234\n",
        table.text());
}

TEST(TableTest, CellStaysOnItsLine) {
    Table table({{"A"}});
    table.add({"one\ntwo\x1B"});

    EXPECT_EQ("A\none?two?\n", table.text());
}

}  // namespace
}  // namespace kolvan::client
