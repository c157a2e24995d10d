#pragma once

#include "companions/server/store/Records.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

namespace kolvan::server::api {

/// A page of a list that was read whole because it is short.
/// @param begin index of the page's first item
/// @param cursorOf what finds the place behind an item again
template <typename Item, typename CursorOf>
Page<Item> pageFrom(std::vector<Item> items, std::size_t begin, std::size_t size,
                    CursorOf cursorOf) {
    const std::size_t end = begin + std::min(size, items.size() - begin);
    Page<Item> page;
    for (std::size_t index = begin; index < end; ++index) {
        page.items.push_back(std::move(items[index]));
    }
    if (end < items.size()) {
        page.next = cursorOf(page.items.back());
    }
    return page;
}

}  // namespace kolvan::server::api
