#pragma once

#include "companions/server/api/ViewText.h"
#include "companions/server/http/Awaitable.h"
#include "companions/server/http/Request.h"
#include "companions/server/http/Response.h"
#include "companions/server/profiles/CodeNames.h"
#include "companions/server/profiles/Output.h"
#include "companions/server/profiles/Profile.h"
#include "companions/server/profiles/ProfileCache.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kolvan::server::api {

/// How much the views of profiles may take.
struct ViewLimits {
    std::size_t keptBytes = std::size_t{256}
                            << 20;  ///< of memory, by profiles that were read, see `ProfileCache`
    std::chrono::milliseconds keptFor{5 * 60'000};     ///< after the last view of any of them
    std::uint64_t sentBytes = std::uint64_t{4} << 30;  ///< of disk, by views that are being sent
    profiles::ProfileLimits profile;
};

/// Makes views of profiles for clients.
///
/// One view is made at a time, on a thread that does nothing else: reading a profile that somebody
/// has made to be as large as possible takes 2 GiB and some seconds, which several at once would
/// multiply. How long a client takes to read its view keeps nobody from having his made.
///
/// Threads: that of the network.
class ProfileViews {
public:
    using Profiles = std::vector<std::shared_ptr<const profiles::Profile>>;

    /// Writes a view of the profiles that were asked for, in their order.
    using Write = std::function<void(const Profiles&, const profiles::Sink&)>;

    /// @param names outlive this object
    /// @param directory where large views lie while they are sent
    ProfileViews(const profiles::CodeNames& names, std::filesystem::path directory,
                 const ViewLimits& viewLimits = {});

    /// Ends what is being made. The contexts of those who wait for it have to be there still.
    ~ProfileViews();

    ProfileViews(const ProfileViews&) = delete;
    ProfileViews& operator=(const ProfileViews&) = delete;

    /// Makes a view, unless the client goes before it is made. Paths and
    /// `write` stay until then.
    /// @param paths of the profiles' files
    /// @param type of the response's content
    /// @throws http::HttpError with status 422 when the view cannot be made of these profiles;
    ///     http::ConnectionLost when the client has gone; std::system_error
    http::Awaitable<http::Response> make(http::Request& request,
                                         const std::vector<std::filesystem::path>& paths,
                                         std::string type, const Write& write);

    /// The hottest functions of a profile as its collection's events tell them. Made once for all
    /// who listen, as long as the profile is kept, and as small as an event has to be.
    /// @param path of the profile's file; stays until the end
    /// @return null where the file has gone, cannot be read as a profile, or has names that would
    ///     make the text too large: the routes of the profile say more
    /// @throws std::system_error; http::ConnectionLost when this object goes
    http::Awaitable<std::shared_ptr<const std::string>> makeTop(const std::filesystem::path& path);

private:
    struct Top {
        std::weak_ptr<const profiles::Profile> profile;
        std::shared_ptr<const std::string> text;
    };

    std::shared_ptr<const std::string> makeTopNow(const std::filesystem::path& path);
    std::variant<std::string, http::FileBody> makeNow(
        const std::vector<std::filesystem::path>& paths, const Write& write,
        const std::function<void()>& proceed);
    void forgetLater();

    const std::filesystem::path directory;
    const ViewLimits limits;
    const std::shared_ptr<ViewRoom> room;
    std::atomic<bool> ending{false};

    boost::asio::thread_pool turn{1};  // its one thread is the turn
    // In the hands of that thread.
    profiles::ProfileCache cache;
    std::vector<Top> tops;  // of profiles that somebody keeps still
    boost::asio::steady_timer idle;
};

}  // namespace kolvan::server::api
