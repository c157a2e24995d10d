#include "companions/server/profiles/TextTable.h"

#include "companions/server/base/Utf8.h"
#include "companions/server/profiles/Refusals.h"

namespace kolvan::server::profiles {

TextTable::Position TextTable::add(std::string_view text) {
    texts.push_back(validUtf8(text));
    bytes += texts.back().size();
    if (bytes > limits.bytes) {  // what is no UTF-8 grows
        refuseTooMany(limits.bytes, "bytes of text");
    }
    return texts.size() - 1;
}

const std::string& TextTable::operator[](Position position) const {
    if (position >= texts.size()) {
        refuseDangling("text");
    }
    return texts[position];
}

std::string TextTable::copyOf(Position position) {
    const std::string& copied = (*this)[position];
    copiedBytes += copied.size();
    if (copiedBytes > limits.bytes) {
        refuseTooMany(limits.bytes, "bytes of names");
    }
    return copied;
}

}  // namespace kolvan::server::profiles
