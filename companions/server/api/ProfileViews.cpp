#include "companions/server/api/ProfileViews.h"

#include "companions/server/api/FileResponse.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/http/Stream.h"
#include "companions/server/profiles/Filter.h"
#include "companions/server/profiles/Top.h"
#include "companions/server/profiles/UnreadableProfile.h"

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>

#include <malloc.h>

namespace kolvan::server::api {

namespace {

constexpr const char* kRetryAfterSeconds = "10";

constexpr std::size_t kFunctionsOfEvent = 100;
constexpr std::size_t kLongestOfEvent = std::size_t{1} << 20;

std::shared_ptr<const std::string> topOf(const profiles::Profile& profile) {
    std::string text;
    const profiles::Sink sink = [&text](std::string_view piece) {
        if (text.size() + piece.size() > kLongestOfEvent) {
            throw profiles::ViewTooLarge("The top is too large for an event.");
        }
        text += piece;
    };
    try {
        profiles::writeTop(profile, {}, kFunctionsOfEvent, sink);
        return std::make_shared<const std::string>(std::move(text));
    } catch (const profiles::ViewTooLarge&) {
        return nullptr;
    }
}

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

http::Awaitable<std::shared_ptr<const std::string>> ProfileViews::makeTop(
    const std::filesystem::path& path) {
    const auto call = [&] { return makeTopNow(path); };
    co_return co_await http::onPool(turn, call);
}

std::shared_ptr<const std::string> ProfileViews::makeTopNow(const std::filesystem::path& path) {
    forgetLater();
    std::shared_ptr<const profiles::Profile> profile;
    try {
        profile = cache.get(path, [this] {
            if (ending) {
                throw http::ConnectionLost("nobody waits for the top any more");
            }
        });
    } catch (const profiles::UnreadableProfile&) {
        return nullptr;
    } catch (const std::system_error& error) {
        if (error.code() != std::errc::no_such_file_or_directory) {
            throw;
        }
        return nullptr;  // the collection is being removed
    }
    std::erase_if(tops, [](const Top& top) { return top.profile.expired(); });
    const auto known = std::find_if(tops.begin(), tops.end(),
                                    [&](const Top& top) { return top.profile.lock() == profile; });
    return known != tops.end() ? known->text : tops.emplace_back(profile, topOf(*profile)).text;
}

void ProfileViews::forgetLater() {
    idle.expires_after(limits.keptFor);
    idle.async_wait([this](const boost::system::error_code& error) {
        if (!error) {
            cache.clear();
            tops.clear();
            (void)::malloc_trim(0);  // back to the system; whether there was any does not matter
        }
    });
}

}  // namespace kolvan::server::api
