#include "companions/server/api/FileResponse.h"

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>

namespace kolvan::server::api {

http::FileBody openFile(const std::filesystem::path& path, Missing missing) {
    const auto openAt = [](const char* name) {
        return std::make_shared<basekit2::UniqueFd>(::open(name, O_RDONLY | O_CLOEXEC));
    };
    auto file = openAt(path.c_str());
    if (!*file && errno == ENOENT && missing == Missing::IsEmpty) {
        file = openAt("/dev/null");
    }
    struct stat status {};
    if (!*file || ::fstat(file->get(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    return {std::move(file), static_cast<std::uint64_t>(status.st_size)};
}

http::Response strangersResponse(const std::string& type) {
    http::Response response;
    response.fields = {{"Content-Type", type},
                       {"X-Content-Type-Options", "nosniff"},
                       {"Content-Security-Policy", "sandbox"}};
    return response;
}

http::Response fileResponse(http::FileBody file, const std::string& type) {
    http::Response response = strangersResponse(type);
    response.body = std::move(file);
    return response;
}

}  // namespace kolvan::server::api
