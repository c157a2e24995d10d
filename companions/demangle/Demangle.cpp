#include "companions/demangle/Demangle.h"

#include <libiberty/demangle.h>

#include <csetjmp>
#include <cstddef>

namespace kolvan {

namespace {

constexpr std::size_t kLongestMangled = 16'384;
constexpr std::size_t kLongest = 65'536;

/// Gathers a text up to a length.
struct Text {
    std::jmp_buf tooLong{};
    std::string characters;
};

/// Leaves the demangler when the text becomes too long: it knows no other way out, and has
/// allocated nothing.
void receive(const char* piece, std::size_t length, void* receiver) {
    Text& text = *static_cast<Text*>(receiver);
    if (length > kLongest - text.characters.size()) {
        std::longjmp(text.tooLong, 1);
    }
    text.characters.append(piece, length);  // within what was reserved: nothing is thrown
}

/// @return false when the name is not mangled, or its text too long
bool print(const char* systemName, Text& text) {
    if (setjmp(text.tooLong) != 0) {
        return false;
    }
    return ::cplus_demangle_v3_callback(systemName, DMGL_PARAMS | DMGL_ANSI, receive, &text) != 0;
}

}  // namespace

std::string demangle(const std::string& systemName) {
    if (!systemName.starts_with("_Z") || systemName.size() > kLongestMangled) {
        return systemName;
    }
    Text text;
    text.characters.reserve(kLongest);
    return print(systemName.c_str(), text) ? std::string(text.characters) : systemName;
}

}  // namespace kolvan
