#pragma once

#include <boost/filesystem/exception.hpp>

#include <exception>
#include <string>

namespace cagnt1::operations {

/// What `action` failed with: the exception's text, or the error's plain description after
/// "filesystem error: " where it came from the filesystem library.
template <typename Action>
std::string failureOf(Action&& action) {
    try {
        (void)action();
    } catch (const boost::filesystem::filesystem_error& error) {
        return "filesystem error: " + error.code().message();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "no failure";
}

}  // namespace cagnt1::operations
