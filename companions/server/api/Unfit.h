#pragma once

#include "companions/server/http/HttpError.h"

#include <stdexcept>
#include <string>

namespace kolvan::server::api {

/// Makes a call whose std::invalid_argument says what is wrong with what a client wants.
/// @throws http::HttpError with status 400 and that sentence in its place
template <typename Call>
auto refusingTheUnfit(Call call) {
    try {
        return call();
    } catch (const std::invalid_argument& unfit) {
        throw http::HttpError(400, std::string(unfit.what()) + '.');
    }
}

}  // namespace kolvan::server::api
