#include "operations/CollectorRuns.h"

#include <algorithm>
#include <utility>

namespace cagnt1::operations {

// The entry may be the last owner of its collector, whose destructor takes long: it is destroyed
// after the lock has been given back.
CollectorRuns::Run::~Run() {
    Entries ended;
    const std::lock_guard lock(owner.entriesMutex);
    ended.splice(ended.end(), owner.entries, entry);
}

CollectorRuns::Run CollectorRuns::begin(std::shared_ptr<ICollector> collector) {
    const std::lock_guard lock(entriesMutex);
    return add(std::move(collector), /*isCollection=*/false);
}

CollectorRuns::Run CollectorRuns::beginCollection(const std::shared_ptr<ICollector>& collector) {
    const std::lock_guard lock(entriesMutex);
    const std::shared_ptr<ICollector> collecting = findCollecting();
    return add(collecting != nullptr ? collecting : collector, /*isCollection=*/true);
}

CollectorRuns::Run CollectorRuns::beginCommand(const std::shared_ptr<ICollector>& collector) {
    const std::lock_guard lock(entriesMutex);
    const std::shared_ptr<ICollector> collecting = findCollecting();
    return add(collecting != nullptr ? collecting : collector, /*isCollection=*/false);
}

std::vector<std::shared_ptr<ICollector>> CollectorRuns::busyCollectors() const {
    std::vector<std::shared_ptr<ICollector>> collectors;
    const std::lock_guard lock(entriesMutex);
    const std::shared_ptr<ICollector> last = findCollecting();
    for (const Entry& entry : entries) {
        if (entry.collector != last &&
            std::find(collectors.begin(), collectors.end(), entry.collector) == collectors.end()) {
            collectors.push_back(entry.collector);
        }
    }
    if (last != nullptr) {
        collectors.push_back(last);
    }
    return collectors;
}

std::shared_ptr<ICollector> CollectorRuns::collecting() const {
    const std::lock_guard lock(entriesMutex);
    return findCollecting();
}

// With entriesMutex held.
CollectorRuns::Run CollectorRuns::add(std::shared_ptr<ICollector> collector, bool isCollection) {
    return {*this, entries.insert(entries.end(), {std::move(collector), isCollection})};
}

// With entriesMutex held.
std::shared_ptr<ICollector> CollectorRuns::findCollecting() const {
    const auto collection = std::find_if(entries.begin(), entries.end(),
                                         [](const Entry& entry) { return entry.isCollection; });
    return collection != entries.end() ? collection->collector : nullptr;
}

}  // namespace cagnt1::operations
