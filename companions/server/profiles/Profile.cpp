#include "companions/server/profiles/Profile.h"

namespace kolvan::server::profiles {

namespace {

template <typename Item>
std::size_t roomOf(const std::vector<Item>& items) {
    return items.capacity() * sizeof(Item);
}

/// What a text takes beside itself.
std::size_t roomOf(const std::string& text) {
    static const std::size_t within = std::string().capacity();
    return text.capacity() > within ? text.capacity() + 1 : 0;
}

}  // namespace

std::size_t memoryOf(const Profile& profile) {
    std::size_t bytes = sizeof(Profile) + roomOf(profile.types) + roomOf(profile.functions) +
                        roomOf(profile.threads) + roomOf(profile.moments) +
                        roomOf(profile.calls.nodes) + roomOf(profile.samples) +
                        roomOf(profile.values) + roomOf(profile.comments);
    for (const Profile::SampleType& type : profile.types) {
        bytes += roomOf(type.name) + roomOf(type.unit);
    }
    for (const Profile::Function& function : profile.functions) {
        bytes += roomOf(function.name) + roomOf(function.module);
    }
    for (const Profile::Thread& thread : profile.threads) {
        bytes += roomOf(thread.name) + roomOf(thread.processName);
    }
    for (const std::string& comment : profile.comments) {
        bytes += roomOf(comment);
    }
    return bytes;
}

}  // namespace kolvan::server::profiles
