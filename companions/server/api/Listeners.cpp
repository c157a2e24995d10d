#include "companions/server/api/Listeners.h"

#include "companions/server/http/HttpError.h"

#include <numeric>
#include <utility>

namespace kolvan::server::api {

Listeners::Seat::Seat(std::shared_ptr<Count> seats, std::string ownerName)
    : taken(std::move(seats)), name(std::move(ownerName)) {
    ++(*taken)[name];
}

Listeners::Seat::~Seat() {
    const auto found = taken->find(name);
    if (--found->second == 0) {
        taken->erase(found);
    }
}

std::shared_ptr<const Listeners::Seat> Listeners::take(const std::string& name) {
    const auto found = taken->find(name);
    const std::size_t ofOne = found == taken->end() ? 0 : found->second;
    const std::size_t ofAll =
        std::accumulate(taken->begin(), taken->end(), std::size_t{0},
                        [](std::size_t sum, const auto& entry) { return sum + entry.second; });
    if (ofOne >= kMostOfOne || ofAll >= kMostOfAll) {
        throw http::HttpError(503, "Too many listen to events already. Try again later.");
    }
    return std::shared_ptr<const Seat>(new Seat(taken, name));
}

}  // namespace kolvan::server::api
