// A library with names of every kind, for a test that looks at it as a file and loads it too.

namespace kolvan::fixture {

// Stays in the symbol table of the library, not in the loader's.
[[gnu::noinline, gnu::visibility("hidden")]] int hidden(int number) {
    asm volatile("" : "+r"(number));
    return number * 3;
}

[[gnu::noinline]] static int local(int number) {
    asm volatile("" : "+r"(number));
    return number * 5;
}

/// A function of a template has a long name.
template <typename Value>
[[gnu::noinline]] Value twice(Value value) {
    asm volatile("" : "+r"(value));
    return value + value;
}

// The test knows these lines.
#line 100
[[gnu::always_inline]] inline int innermost(int number) {
    asm volatile(
        ".globl kolvan_spot\n"
        "kolvan_spot: nop\n"
        : "+r"(number));
    return number + 1;
}

#line 200
[[gnu::always_inline]] inline int middle(int number) {
    return innermost(number) + 1;
}

}  // namespace kolvan::fixture

extern "C" {

#line 300
[[gnu::noinline, gnu::noclone]] int kolvan_outer(int number) {
    return kolvan::fixture::middle(number) * 2;
}

[[gnu::weak, gnu::alias("kolvan_outer")]] int kolvan_weak(int number);

const void* kolvan_address_of_hidden() {
    return reinterpret_cast<const void*>(kolvan::fixture::hidden);
}

const void* kolvan_address_of_local() {
    return reinterpret_cast<const void*>(kolvan::fixture::local);
}

const void* kolvan_address_of_template() {
    return reinterpret_cast<const void*>(kolvan::fixture::twice<long>);
}
}

// A function of assembly without type and size.
asm(R"(
    .text
    .globl kolvan_assembly
kolvan_assembly:
    nop
    nop
    ret
)");
