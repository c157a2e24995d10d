#pragma once

#include "basekit2/Places.h"
#include "tests/support/BackgroundCall.h"

#include <utility>
#include <vector>

namespace kolvan::test {

/// Takes every place that there is. Nobody else may wait for one meanwhile.
inline std::vector<basekit2::Places::Place> takeAll(basekit2::Places& places) {
    std::vector<basekit2::Places::Place> taken;
    BackgroundCall taking([&] {
        while (basekit2::Places::Place next = places.take()) {
            taken.push_back(std::move(next));
        }
        return true;
    });
    while (!taking.hasEnded()) {
        places.turnAway();  // reaches only somebody who waits
    }
    return taken;
}

}  // namespace kolvan::test
