#include "companions/server/profiles/ByteTable.h"

#include "companions/server/profiles/RandomKey.h"

#include <sodium.h>

namespace kolvan::server::profiles {

namespace {

constexpr std::size_t kFirstSlots = 1024;

std::uint32_t hashOf(std::string_view bytes, const std::array<unsigned char, 16>& key) {
    static_assert(sizeof(key) == crypto_shorthash_KEYBYTES);
    std::uint64_t hash = 0;
    static_assert(sizeof(hash) == crypto_shorthash_BYTES);
    crypto_shorthash(reinterpret_cast<unsigned char*>(&hash),
                     reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                     key.data());
    return static_cast<std::uint32_t>(hash);
}

}  // namespace

ByteTable::ByteTable() : key(randomKey<std::array<unsigned char, 16>>()), slots(kFirstSlots) {}

std::uint32_t ByteTable::add(std::string_view bytes) {
    if ((ends.size() + 1) * 2 > slots.size()) {
        enlarge();
    }
    const std::uint32_t hash = hashOf(bytes, key);
    std::size_t place = hash & (slots.size() - 1);
    while (slots[place].numberPlus1 != 0) {
        const std::uint32_t number = slots[place].numberPlus1 - 1;
        if (slots[place].hash == hash && (*this)[number] == bytes) {
            return number;
        }
        place = (place + 1) & (slots.size() - 1);
    }
    bytesOfAll += bytes;
    ends.push_back(bytesOfAll.size());
    slots[place] = {hash, static_cast<std::uint32_t>(ends.size())};
    return static_cast<std::uint32_t>(ends.size() - 1);
}

std::string_view ByteTable::operator[](std::uint32_t number) const {
    const std::size_t begin = number == 0 ? 0 : ends[number - 1];
    return std::string_view(bytesOfAll).substr(begin, ends[number] - begin);
}

void ByteTable::enlarge() {
    std::vector<Slot> larger(slots.size() * 2);
    for (const Slot& slot : slots) {
        if (slot.numberPlus1 != 0) {
            std::size_t place = slot.hash & (larger.size() - 1);
            while (larger[place].numberPlus1 != 0) {
                place = (place + 1) & (larger.size() - 1);
            }
            larger[place] = slot;
        }
    }
    slots.swap(larger);
}

}  // namespace kolvan::server::profiles
