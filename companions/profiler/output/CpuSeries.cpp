#include "companions/profiler/output/CpuSeries.h"

namespace kolvan::profiler {

void CpuSeries::add(double value) {
    if (buckets.empty() || buckets.back().count == width) {
        if (buckets.size() == kMostPoints) {
            for (std::size_t index = 0; index < kMostPoints / 2; ++index) {
                const Bucket& left = buckets[2 * index];
                const Bucket& right = buckets[2 * index + 1];
                buckets[index] = {left.sum + right.sum, left.count + right.count};
            }
            buckets.resize(kMostPoints / 2);
            width *= 2;
        }
        buckets.emplace_back();
    }
    buckets.back().sum += value;
    ++buckets.back().count;
}

std::vector<double> CpuSeries::points() const {
    std::vector<double> result;
    result.reserve(buckets.size());
    for (const Bucket& bucket : buckets) {
        result.push_back(bucket.sum / static_cast<double>(bucket.count));
    }
    return result;
}

}  // namespace kolvan::profiler
