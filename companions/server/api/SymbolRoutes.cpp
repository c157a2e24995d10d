#include "companions/server/api/SymbolRoutes.h"

#include "companions/server/api/JsonWriter.h"
#include "companions/server/api/Query.h"
#include "companions/server/api/RecordJson.h"
#include "companions/server/http/HttpError.h"
#include "companions/server/http/OnPool.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kolvan::server::api {

namespace {

using http::Awaitable;
using http::HttpError;
using http::Response;
using symbols::SymbolFiles;
using symbols::Symbols;

// With all that a debugger needs, files of a large browser have this order of magnitude.
constexpr std::uint64_t kLargestFile = std::uint64_t{4} << 30;

/// Where in the list a file stands: it is said of the last one of a page, and the next page begins
/// behind it, whatever has come or gone meanwhile.
std::string placeOf(const Symbols& symbols) {
    return toRfc3339(symbols.added) + ' ' + symbols.buildId;
}

Page<Symbols> pageOf(const std::vector<Symbols>& all, const PageRequest& request) {
    Page<Symbols> page;
    for (const Symbols& one : all) {
        // Of moments in this form, the earlier one is the lesser text.
        if (!request.after.empty() && placeOf(one) >= request.after) {
            continue;
        }
        if (page.items.size() == request.size) {
            page.next = placeOf(page.items.back());
            break;
        }
        page.items.push_back(one);
    }
    return page;
}

Awaitable<Response> list(const Surroundings& parts, http::Request& request) {
    const PageRequest wanted = Query(request, {"cursor", "limit"}).page();
    const auto find = [&] { return pageOf(parts.symbols.list(), wanted); };
    co_return http::jsonResponse(
        pageJson(co_await http::onPool(parts.threads, find), writeSymbols));
}

Awaitable<Response> put(const Surroundings& parts, http::Request& request, const Caller& caller) {
    const Query query(request, {"name"});
    const std::string& buildId = request.place("buildId");
    if (!SymbolFiles::isBuildId(buildId)) {
        throw HttpError(400, "A build-id is an even number of lower-case hexadecimal digits.");
    }
    const std::string name = query.text("name").value_or(buildId);
    if (!SymbolFiles::isName(name)) {
        throw HttpError(400,
                        "A file's name here has letters, digits and \".-_+@\", with no dot in "
                        "front, and 200 bytes at most.");
    }
    std::optional<IncomingFile> file;
    Symbols kept;
    const auto keep = [&] {
        try {
            kept = parts.symbols.keep(std::move(*file), buildId);
            record(parts, caller, "symbols.put", buildId, name);
        } catch (const symbols::UnreadableSymbols& error) {
            throw HttpError(400, error.what());
        }
    };
    const auto take = [&](std::string_view piece) {
        if (!file) {
            file.emplace(parts.symbols.begin(buildId, name));
        }
        if (!piece.empty()) {
            file->write(piece);
        } else {
            keep();
        }
    };
    co_await request.readOnPool(parts.threads, take);
    co_return http::jsonResponse(recordJson(kept, writeSymbols), 201);
}

Awaitable<Response> remove(const Surroundings& parts, http::Request& request,
                           const Caller& caller) {
    const std::string& buildId = request.place("buildId");
    const auto forget = [&] {
        if (!parts.symbols.remove(buildId)) {
            throw HttpError(404, "There are no symbols with this build-id.");
        }
        record(parts, caller, "symbols.remove", buildId, "");
    };
    co_await http::onPool(parts.threads, forget);
    co_return http::noContentResponse();
}

}  // namespace

void addSymbolRoutes(Api& api, http::Router& router) {
    const Surroundings& parts = api.parts();
    const std::string one = "/api/v1/symbols/{buildId}";
    api.add(router, "GET", "/api/v1/symbols", Permission::Look,
            [&parts](http::Request& request, const Caller&) { return list(parts, request); });
    api.add(
        router, "PUT", one, Permission::Collect,
        [&parts](http::Request& request, const Caller& caller) {
            return put(parts, request, caller);
        },
        kLargestFile);
    api.add(router, "DELETE", one, Permission::Collect,
            [&parts](http::Request& request, const Caller& caller) {
                return remove(parts, request, caller);
            });
}

}  // namespace kolvan::server::api
