#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

// Where the compiler has put the virtual functions and the data of a class. Both are read out of
// pointers to members, whose form the Itanium C++ ABI lays down in its chapter 2.3, "Member
// Pointers": every compiler for Linux follows it on x86-64. Nothing is called through them.
namespace kolvan::test {

/// Number of a virtual function among those of its class, from 0; a virtual destructor takes two.
///
/// A pointer to a member function is a pair: for a virtual function the first half is 1 plus the
/// function's offset in the virtual table, in bytes; for any other it is an address, which is even.
/// @return -1 for a function that is not virtual
template <typename Function, typename Class>
std::ptrdiff_t virtualSlot(Function Class::*function) {
    std::ptrdiff_t halves[2] = {};
    static_assert(sizeof halves == sizeof function);
    std::memcpy(halves, &function, sizeof halves);
    const bool isVirtual = (halves[0] & 1) != 0;
    return isVirtual ? (halves[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)) : -1;
}

/// Offset of a data member in its class, in bytes: this is what a pointer to it is.
template <typename Member, typename Class>
std::ptrdiff_t offsetOf(Member Class::*member) {
    std::ptrdiff_t offset = 0;
    static_assert(sizeof offset == sizeof member);
    std::memcpy(&offset, &member, sizeof offset);
    return offset;
}

/// Tells the order of some data members of a class, private ones too, to whoever declares
///
///     std::vector<std::ptrdiff_t> memberOffsets(const Class*);
///
/// and instantiates this explicitly with pointers to them: in an explicit instantiation any member
/// may be named. The offsets come in the order of the pointers.
template <typename Class, auto... members>
struct MemberOrder {
    friend std::vector<std::ptrdiff_t> memberOffsets(const Class*) {
        return {offsetOf(members)...};
    }
};

}  // namespace kolvan::test
