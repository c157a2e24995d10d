#pragma once

#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace cagnt1::operations {

class ICollector;

/// What runs, and on which collector. Every acceptance by the server brings a new collector, also
/// while something still runs on an earlier one; here they are found all the same.
///
/// Threads: every member from any threads at once. The object outlives every run.
class CollectorRuns {
    struct Entry {
        std::shared_ptr<ICollector> collector;
        bool isCollection;
    };
    using Entries = std::list<Entry>;

public:
    /// One run, listed as long as this object lives.
    class Run {
    public:
        ~Run();

        Run(const Run&) = delete;
        Run& operator=(const Run&) = delete;

        ICollector* operator->() const { return entry->collector.get(); }

    private:
        friend class CollectorRuns;

        Run(CollectorRuns& runs, Entries::iterator position) : owner(runs), entry(position) {}

        CollectorRuns& owner;
        const Entries::iterator entry;
    };

    /// Lists a run on `collector`.
    Run begin(std::shared_ptr<ICollector> collector);

    /// Lists a collection. Where one runs already the new one goes to the same collector, which
    /// refuses it, or takes it if the other has just ended. Otherwise it goes to `collector`.
    Run beginCollection(const std::shared_ptr<ICollector>& collector);

    /// Lists a command. It goes to the collector on which a collection runs, otherwise to
    /// `collector`.
    Run beginCommand(const std::shared_ptr<ICollector>& collector);

    /// The collectors on which something runs, each once. The one on which a collection runs, if
    /// there is one, comes last.
    std::vector<std::shared_ptr<ICollector>> busyCollectors() const;

    /// The collector on which a collection runs; empty when there is none.
    std::shared_ptr<ICollector> collecting() const;

private:
    Run add(std::shared_ptr<ICollector> collector, bool isCollection);
    std::shared_ptr<ICollector> findCollecting() const;

    mutable std::mutex entriesMutex;  // guards entries; no other lock is taken under it
    Entries entries;                  // in the order in which they began
};

}  // namespace cagnt1::operations
