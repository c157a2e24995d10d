#pragma once

#include <cstddef>
#include <vector>

namespace kolvan::profiler {

/// Keeps any number of values as at most 60 averages, for a small chart: when it is full, it joins
/// neighbours, and every point then stands for twice as many values.
class CpuSeries {
public:
    static constexpr std::size_t kMostPoints = 60;

    void add(double value);

    /// The averages in order; the last one may stand for fewer values than the others.
    std::vector<double> points() const;

    std::size_t valuesPerPoint() const noexcept { return width; }

private:
    struct Bucket {
        double sum = 0;
        std::size_t count = 0;
    };

    std::vector<Bucket> buckets;
    std::size_t width = 1;
};

}  // namespace kolvan::profiler
