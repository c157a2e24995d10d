#pragma once

#include "basekit2/UniqueFd.h"
#include "companions/server/http/Response.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace kolvan::server::api {

/// There is no room for another large view at present.
struct NoRoomForView : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// How much room all large views take that are on their way to clients.
class ViewRoom {
public:
    explicit ViewRoom(std::uint64_t mostBytes) : most(mostBytes) {}

    /// @throws NoRoomForView
    void take(std::uint64_t bytes);
    void giveBack(std::uint64_t bytes) noexcept { taken -= bytes; }

private:
    const std::uint64_t most;
    std::atomic<std::uint64_t> taken{0};
};

/// The text of a view while it is made, and until it has been sent: in memory while it is small,
/// then in a file that has no name and goes with its last reader.
///
/// Made in one go, so that nothing but the text waits for a client that takes its time: neither the
/// profile nor a thread.
class ViewText {
public:
    /// A text that has become longer than this goes into a file.
    static constexpr std::size_t kMostInMemory = std::size_t{256} * 1024;

    /// @param fileDirectory where the file would be: on a disk, not in memory
    ViewText(std::filesystem::path fileDirectory, std::shared_ptr<ViewRoom> roomForFiles);

    /// @throws NoRoomForView; std::system_error when the disk does not take it
    void write(std::string_view piece);

    /// The whole text. To be called once, at the end.
    std::variant<std::string, http::FileBody> finish();

private:
    struct File {
        explicit File(std::shared_ptr<ViewRoom> takenRoom) : room(std::move(takenRoom)) {}
        ~File() { room->giveBack(bytes); }
        File(const File&) = delete;
        File& operator=(const File&) = delete;

        const std::shared_ptr<ViewRoom> room;
        basekit2::UniqueFd descriptor;
        std::uint64_t bytes = 0;  // that were taken of the room
    };

    void moveToFile();
    void append(std::string_view bytes);

    const std::filesystem::path directory;
    const std::shared_ptr<ViewRoom> room;
    std::string text;            // not used any more when there is a file
    std::shared_ptr<File> file;  // null while the text is in memory
};

}  // namespace kolvan::server::api
