#include "companions/server/api/ProfileViews.h"

#include "companions/server/api/FileResponse.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/http/Stream.h"
#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <boost/system/error_code.hpp>

#include <optional>
#include <utility>
#include <variant>

#include <malloc.h>

namespace kolvan::server::api {

namespace {

constexpr const char* kRetryAfterSeconds = "10";

}  // namespace

ProfileViews::ProfileViews(const profiles::CodeNames& names, std::filesystem::path viewDirectory,
                           const ViewLimits& viewLimits)
    : directory(std::move(viewDirectory)),
      limits(viewLimits),
      room(std::make_shared<ViewRoom>(viewLimits.sentBytes)),
      cache(names, viewLimits.keptBytes, viewLimits.profile),
      idle(turn.get_executor()) {}

ProfileViews::~ProfileViews() {
    ending = true;
    turn.stop();
    turn.join();
}

http::Awaitable<http::Response> ProfileViews::make(http::Request& request,
                                                   const std::vector<std::filesystem::path>& paths,
                                                   std::string type, const Write& write) {
    const auto gone = std::make_shared<std::atomic<bool>>(false);
    request.onHangUp([gone] { *gone = true; });
    const std::function<void()> proceed = [this, gone] {
        if (*gone || ending) {
            throw http::ConnectionLost("nobody waits for the view any more");
        }
    };
    const auto call = [&] { return makeNow(paths, write, proceed); };
    std::optional<http::Response> busy;
    try {
        auto text = co_await http::onPool(turn, call);
        http::Response response = strangersResponse(type);
        if (auto* const inMemory = std::get_if<std::string>(&text)) {
            response.body = std::move(*inMemory);
        } else {
            response.body = std::get<http::FileBody>(std::move(text));
        }
        co_return response;
    } catch (const profiles::UnreadableProfile& error) {
        throw http::HttpError(422, error.what());
    } catch (const profiles::BadFilter& error) {
        throw http::HttpError(422, error.what());
    } catch (const profiles::ViewTooLarge& error) {
        throw http::HttpError(422, error.what());
    } catch (const NoRoomForView& error) {
        busy = http::problemResponse(503, error.what());
    }
    busy->fields.emplace_back("Retry-After", kRetryAfterSeconds);
    co_return std::move(*busy);
}

std::variant<std::string, http::FileBody> ProfileViews::makeNow(
    const std::vector<std::filesystem::path>& paths, const Write& write,
    const std::function<void()>& proceed) {
    proceed();
    forgetLater();
    Profiles read;
    for (const std::filesystem::path& path : paths) {
        read.push_back(cache.get(path, proceed));
    }
    ViewText text(directory, room);
    write(read, [&](std::string_view piece) {
        proceed();
        text.write(piece);
    });
    return text.finish();
}

void ProfileViews::forgetLater() {
    idle.expires_after(limits.keptFor);
    idle.async_wait([this](const boost::system::error_code& error) {
        if (!error) {
            cache.clear();
            (void)::malloc_trim(0);  // back to the system; whether there was any does not matter
        }
    });
}

}  // namespace kolvan::server::api
