#pragma once

#include <iterator>
#include <memory>
#include <utility>

namespace basekit2 {

/// Walks a range given by two iterators. The range must outlive the walk.
template <typename Iterator>
class range_iterator_t {
public:
    range_iterator_t(Iterator first, Iterator last)
        : current(std::move(first)), end(std::move(last)) {}

    bool at_end() const { return current == end; }
    const auto& get() const { return *current; }
    void next() { ++current; }

private:
    Iterator current;
    Iterator end;
};

/// A forward walk over values of type `Value` that hides what it walks over, so that an interface
/// can take "some strings" without a template. It holds a copy of the iterator given to it.
template <typename Value>
class generic_iterator_t {
public:
    /// @param iterator has `at_end()`, `get()` and `next()`, like `range_iterator_t`
    template <typename Iterator>
    explicit generic_iterator_t(const Iterator& iterator)
        : walk(std::make_unique<Walk<Iterator>>(iterator)) {}

    bool at_end() const { return walk->at_end(); }

    /// @pre not `at_end()`
    const Value& get() const { return walk->get(); }

    /// @pre not `at_end()`
    void next() { walk->next(); }

private:
    struct AnyWalk {
        virtual ~AnyWalk() = default;
        virtual bool at_end() const = 0;
        virtual const Value& get() const = 0;
        virtual void next() = 0;
    };

    template <typename Iterator>
    struct Walk final : AnyWalk {
        explicit Walk(const Iterator& source) : iterator(source) {}
        bool at_end() const override { return iterator.at_end(); }
        const Value& get() const override { return iterator.get(); }
        void next() override { iterator.next(); }

        Iterator iterator;
    };

    std::unique_ptr<AnyWalk> walk;
};

/// Makes a walk over all values of a container, which must outlive the walk.
template <typename Container>
generic_iterator_t<typename Container::value_type> make_generic_iterator(const Container& values) {
    return generic_iterator_t<typename Container::value_type>(
        range_iterator_t(values.begin(), values.end()));
}

/// A temporary container would not outlive the walk.
template <typename Container>
void make_generic_iterator(const Container&& values) = delete;

}  // namespace basekit2
