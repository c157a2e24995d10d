#pragma once

#include "basekit2/pool_allocator.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace basekit2 {

/// A reference count that may be changed from several threads at once. Starts at zero.
class mt_ref_count_impl_t {
public:
    void increment() noexcept { count.fetch_add(1, std::memory_order_relaxed); }

    /// Takes one off. Returns true when none is left: the caller then destroys the object, and sees
    /// everything that the other owners did to it before they let go.
    bool decrement() noexcept { return count.fetch_sub(1, std::memory_order_acq_rel) == 1; }

private:
    std::atomic<std::int32_t> count{0};
};

/// The concrete, counted form of `Object`, a class that leaves `add_ref` and `release` open.
///
/// Instances come from the facility's pool allocator and return to it when the count reaches
/// zero. They start with a count of zero; the creator takes the first reference, normally by
/// handing the pointer to a `ref_ptr_t`.
template <typename Object, typename RefCount>
class ref_counted_t final : public Object {
public:
    template <typename... Arguments>
    explicit ref_counted_t(Arguments&&... arguments)
        : Object(std::forward<Arguments>(arguments)...) {}

    void add_ref() noexcept override { references.increment(); }

    void release() noexcept override {
        if (references.decrement()) {
            delete this;
        }
    }

    static void* operator new(std::size_t size) { return get_pool_allocator().allocate(size); }
    static void operator delete(void* block, std::size_t size) noexcept {
        get_pool_allocator().deallocate(block, size);
    }

private:
    ~ref_counted_t() override = default;

    RefCount references;
};

/// Owner of one reference to a counted object, or of nothing. Copying takes a further reference.
///
/// One `ref_ptr_t` must not be changed from two threads at once. Different ones may be, even if
/// they refer to the same object.
template <typename Object>
class ref_ptr_t {
public:
    constexpr ref_ptr_t() noexcept = default;

    /// Takes a reference of its own to `object`, which may be null.
    explicit ref_ptr_t(Object* object) noexcept : target(object) {
        if (target != nullptr) {
            target->add_ref();
        }
    }

    ref_ptr_t(const ref_ptr_t& other) noexcept : ref_ptr_t(other.target) {}
    ref_ptr_t(ref_ptr_t&& other) noexcept : target(std::exchange(other.target, nullptr)) {}

    /// Shares what a pointer to a derived class owns.
    template <typename Derived, typename = std::enable_if_t<std::is_base_of_v<Object, Derived>>>
    ref_ptr_t(const ref_ptr_t<Derived>& other) noexcept : ref_ptr_t(other.get()) {}

    ref_ptr_t& operator=(ref_ptr_t other) noexcept {
        std::swap(target, other.target);
        return *this;
    }

    ~ref_ptr_t() {
        if (target != nullptr) {
            target->release();
        }
    }

    Object* get() const noexcept { return target; }
    Object* operator->() const noexcept { return target; }
    Object& operator*() const noexcept { return *target; }
    explicit operator bool() const noexcept { return target != nullptr; }

private:
    Object* target = nullptr;
};

/// Creates a counted `Object` whose count may be changed from any thread.
template <typename Object, typename... Arguments>
ref_ptr_t<Object> make_ref_counted(Arguments&&... arguments) {
    return ref_ptr_t<Object>(
        new ref_counted_t<Object, mt_ref_count_impl_t>(std::forward<Arguments>(arguments)...));
}

}  // namespace basekit2
