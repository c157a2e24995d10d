#include "companions/server/accounts/LoginThrottle.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace kolvan::server {

namespace {

constexpr std::chrono::hours kQuiet{1};
// Takes a few megabytes. Who guesses from more addresses than this meets the limit of the user.
constexpr std::size_t kMostKept = 20'000;

// With a word in front, no user has the key of an address.
std::string keyOfUser(const std::string& user) {
    return "user " + user;
}

// Of IPv6, whoever has one address has at least the network of 64 bits around it.
std::string keyOfAddress(const std::string& address) {
    in6_addr bytes{};
    const bool isOfIpv4 = address.find('.') != std::string::npos;  // "::ffff:192.0.2.1", too
    if (isOfIpv4 || ::inet_pton(AF_INET6, address.c_str(), &bytes) != 1) {
        return "address " + address;
    }
    std::fill(std::begin(bytes.s6_addr) + 8, std::end(bytes.s6_addr), std::uint8_t{0});
    std::array<char, INET6_ADDRSTRLEN> network{};
    (void)::inet_ntop(AF_INET6, &bytes, network.data(), network.size());  // the room suffices
    return std::string("network ") + network.data();
}

}  // namespace

std::optional<std::chrono::seconds> LoginThrottle::admit(const std::string& user,
                                                         const std::string& address) {
    const Time now = clock.steady();
    const std::string ofUser = keyOfUser(user);
    const std::string ofAddress = keyOfAddress(address);
    const std::lock_guard lock(mutex);
    const Time next = std::max(nextFor(ofUser), nextFor(ofAddress));
    if (now < next) {
        return std::chrono::ceil<std::chrono::seconds>(next - now);
    }
    makeRoom(now);
    count(attempts[ofUser], kForUser, now);
    count(attempts[ofAddress], kForAddress, now);
    return std::nullopt;
}

void LoginThrottle::succeeded(const std::string& user, const std::string& address) {
    const std::lock_guard lock(mutex);
    attempts.erase(keyOfUser(user));
    attempts.erase(keyOfAddress(address));
}

void LoginThrottle::count(Attempts& attempts, const Limit& limit, Time now) {
    if (now - attempts.last > kQuiet) {
        attempts = {};
    }
    attempts.last = now;
    if (++attempts.count < limit.freeAttempts) {
        return;
    }
    // Doubling more often than this would overflow, and is far beyond the longest wait.
    const unsigned doublings = std::min(attempts.count - limit.freeAttempts, 20U);
    attempts.next = now + std::min(std::chrono::seconds(1LL << doublings), limit.longestWait);
}

LoginThrottle::Time LoginThrottle::nextFor(const std::string& key) const {
    const auto found = attempts.find(key);
    return found == attempts.end() ? Time::min() : found->second.next;
}

void LoginThrottle::makeRoom(Time now) {
    if (attempts.size() < kMostKept) {
        return;
    }
    std::erase_if(attempts, [&](const auto& entry) { return now - entry.second.last > kQuiet; });
    if (attempts.size() < kMostKept) {
        return;
    }
    // The older half at once, so that this is seldom.
    std::vector<Time> times;
    times.reserve(attempts.size());
    for (const auto& [key, each] : attempts) {
        times.push_back(each.last);
    }
    const auto middle = times.begin() + std::ssize(times) / 2;
    std::nth_element(times.begin(), middle, times.end());
    std::erase_if(attempts, [&](const auto& entry) { return entry.second.last <= *middle; });
}

}  // namespace kolvan::server
