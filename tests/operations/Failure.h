#pragma once

#include <boost/filesystem/exception.hpp>
#include <boost/filesystem/operations.hpp>

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

/// Why no directory can be made at `place`. Versions of the filesystem library differ in which of
/// the errors on the way they tell.
inline std::string reasonAgainstDirectory(const std::string& place) {
    boost::system::error_code error;
    boost::filesystem::create_directories(place, error);
    return error ? error.message() : "none";
}

}  // namespace cagnt1::operations
