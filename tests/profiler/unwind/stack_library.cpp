// A library that stack_fixture loads while it runs.

extern "C" [[gnu::noinline]] void kolvan_call_back(void (*function)()) {
    function();
    asm volatile("" : : : "memory");  // keeps the call from becoming a jump
}
