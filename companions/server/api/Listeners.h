#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>

namespace kolvan::server::api {

/// Counts who listens to events. A listener costs a connection for as long as he likes, and a look
/// into the store for all that happens: without a limit, a viewer could keep agents and people out.
///
/// Threads: that of the network.
class Listeners {
public:
    static constexpr std::size_t kMostOfOne = 200;
    static constexpr std::size_t kMostOfAll = 2000;

    /// A listener's place, free again at its end.
    class Seat {
    public:
        ~Seat();
        Seat(const Seat&) = delete;
        Seat& operator=(const Seat&) = delete;

    private:
        friend class Listeners;
        using Count = std::map<std::string, std::size_t>;
        Seat(std::shared_ptr<Count> seats, std::string ownerName);

        const std::shared_ptr<Count> taken;
        const std::string name;
    };

    /// Takes a place for somebody with this name.
    /// @throws http::HttpError with status 503 when there is none
    std::shared_ptr<const Seat> take(const std::string& name);

private:
    const std::shared_ptr<Seat::Count> taken = std::make_shared<Seat::Count>();
};

}  // namespace kolvan::server::api
