#pragma once

#include "companions/server/http/Response.h"

#include <filesystem>
#include <string>

namespace kolvan::server::api {

/// What it means that a file is not there.
enum class Missing { IsAnError, IsEmpty };

/// Opens a file to be sent. Blocks on the disk.
/// @throws std::system_error
http::FileBody openFile(const std::filesystem::path& path, Missing missing);

/// A response whose content is made of what strangers say: not interpreted by browsers, whatever it
/// holds. Its body is still empty.
http::Response strangersResponse(const std::string& type);

/// A response with this file. It may be asked for in parts.
http::Response fileResponse(http::FileBody file, const std::string& type);

}  // namespace kolvan::server::api
