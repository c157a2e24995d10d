#include "companions/server/api/ViewText.h"

#include "companions/server/base/IncomingFiles.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace kolvan::server::api {

void ViewRoom::take(std::uint64_t bytes) {
    if (taken.fetch_add(bytes) + bytes > most) {
        taken -= bytes;
        throw NoRoomForView("Too many large views are being sent; try again in a while.");
    }
}

ViewText::ViewText(std::filesystem::path fileDirectory, std::shared_ptr<ViewRoom> roomForFiles)
    : directory(std::move(fileDirectory)), room(std::move(roomForFiles)) {}

void ViewText::write(std::string_view piece) {
    if (!file && text.size() + piece.size() > kMostInMemory) {
        moveToFile();
    }
    if (file) {
        append(piece);
    } else {
        text += piece;
    }
}

std::variant<std::string, http::FileBody> ViewText::finish() {
    if (!file) {
        return std::move(text);
    }
    return http::FileBody{{file, &file->descriptor}, file->bytes};
}

void ViewText::moveToFile() {
    auto made = std::make_shared<File>(room);
    std::string name = directory / "view-XXXXXX";
    made->descriptor.reset(::mkostemp(name.data(), O_CLOEXEC));
    if (!made->descriptor || ::unlink(name.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    file = std::move(made);
    append(text);
    text = {};
}

void ViewText::append(std::string_view bytes) {
    room->take(bytes.size());
    file->bytes += bytes.size();
    writeAll(file->descriptor.get(), bytes, directory);
}

}  // namespace kolvan::server::api
