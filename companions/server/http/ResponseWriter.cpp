#include "companions/server/http/ResponseWriter.h"

#include "companions/server/http/ByteRange.h"
#include "companions/server/http/OnPool.h"
#include "companions/server/http/Patience.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <unistd.h>

namespace kolvan::server::http {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kFilePiece = std::size_t{256} * 1024;
// A body of up to this size is copied behind its head, so that both are one packet or two.
constexpr std::size_t kTogether = std::size_t{16} * 1024;

// What browsers are told of every answer that does not say otherwise: nothing is taken for another
// type than it says, no code runs but that of our own files, no other site shows our pages in a
// frame or learns their addresses, and no answer is kept.
constexpr std::array<std::pair<std::string_view, std::string_view>, 5> kUsualFields = {{
    {"X-Content-Type-Options", "nosniff"},
    {"Content-Security-Policy",
     "default-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'; "
     "object-src 'none'"},
    {"X-Frame-Options", "DENY"},
    {"Referrer-Policy", "no-referrer"},
    {"Cache-Control", "no-store"},
}};

Awaitable<void> writeAll(Stream& stream, std::string_view bytes, Patience& patience) {
    while (!bytes.empty()) {
        const Clock::time_point begin = Clock::now();
        const std::size_t length = co_await stream.writeSome(bytes, patience.left());
        patience.spend(Clock::now() - begin, length);
        bytes.remove_prefix(length);
    }
}

std::string dateText() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    (void)::gmtime_r(&now, &parts);  // cannot fail for a present time
    std::array<char, 64> text{};
    const std::size_t length =
        std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
    return {text.data(), length};
}

void addField(std::string& head, std::string_view name, std::string_view value) {
    // A line end in a value would let whoever chose it write fields of his own.
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos) {
        throw std::invalid_argument("A line end in the header field " + std::string(name));
    }
    head.append(name).append(": ").append(value).append("\r\n");
}

bool mayHaveBody(unsigned status) {
    return status >= 200 && status != 204 && status != 304;
}

std::string headText(const Response& response, const ResponseManner& manner) {
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + ' ';
    head.append(reasonPhrase(response.status)).append("\r\n");
    addField(head, "Date", dateText());
    for (const auto& [name, value] : response.fields) {
        addField(head, name, value);
    }
    for (const auto& [name, value] : kUsualFields) {
        if (!findField(response.fields, name)) {
            addField(head, name, value);
        }
    }
    addField(head, "Connection", manner.keepAlive ? "keep-alive" : "close");
    return head;
}

class ChunkWriter final : public BodyWriter {
public:
    ChunkWriter(Stream& output, const Limits& clientLimits, bool inChunks,
                std::function<void(std::function<void()>)> registerEnd)
        : stream(output),
          limits(clientLimits),
          chunked(inChunks),
          registerCallback(std::move(registerEnd)) {}

    Awaitable<bool> write(std::string_view bytes) override {
        if (bytes.empty() || broken) {
            co_return !broken;  // an empty chunk would be the end of the body
        }
        std::string text(bytes);
        if (chunked) {
            std::array<char, 24> length{};
            (void)std::snprintf(length.data(), length.size(), "%zx\r\n", bytes.size());
            text.insert(0, length.data()).append("\r\n");
        }
        co_await send(text);
        co_return !broken;
    }

    void onEnd(std::function<void()> ended) override { registerCallback(std::move(ended)); }

    Awaitable<void> complete() {
        if (chunked && !broken) {
            co_await send("0\r\n\r\n");
        }
        if (broken) {
            throw ConnectionLost("the client has left a stream");
        }
    }

private:
    Awaitable<void> send(std::string_view text) {
        try {
            Patience patience(limits.bodyPause, limits.bodyBytesPerSecond);
            co_await writeAll(stream, text, patience);
        } catch (const ConnectionLost&) {
            broken = true;
        }
    }

    Stream& stream;
    const Limits& limits;
    const bool chunked;
    const std::function<void(std::function<void()>)> registerCallback;
    bool broken = false;
};

std::size_t readPiece(const basekit2::UniqueFd& file, std::vector<char>& piece,
                      const ByteRange& range) {
    const std::size_t wanted = std::min<std::uint64_t>(piece.size(), range.length);
    const ssize_t length =
        ::pread(file.get(), piece.data(), wanted, static_cast<off_t>(range.begin));
    if (length < 0) {
        throw std::system_error(errno, std::generic_category(), "read a file to send it");
    }
    if (length == 0) {
        throw std::runtime_error("A file has become shorter while it was sent");
    }
    return static_cast<std::size_t>(length);
}

Awaitable<void> writeFile(Stream& stream, Patience& patience, boost::asio::thread_pool& threads,
                          const FileBody& body, ByteRange range) {
    std::vector<char> piece(std::min<std::uint64_t>(kFilePiece, range.length));
    while (range.length != 0) {
        const auto read = [&body, &piece, &range] {
            if (body.mayGoOn && !body.mayGoOn()) {
                throw ConnectionLost("the file is no longer for this client");
            }
            return readPiece(*body.file, piece, range);
        };
        const std::size_t length = co_await onPool(threads, read);
        co_await writeAll(stream, {piece.data(), length}, patience);
        range.begin += length;
        range.length -= length;
    }
}

// Turns a response with a file into one with the part that was asked for.
ByteRange chooseRange(Response& response, std::uint64_t size, const std::string& wanted) {
    response.fields.emplace_back("Accept-Ranges", "bytes");
    const std::optional<ByteRange> range =
        response.status == 200 && !wanted.empty() ? parseRange(wanted, size) : std::nullopt;
    if (!range) {
        return {0, size};
    }
    if (range->length == 0) {
        response.status = 416;
        response.fields.emplace_back("Content-Range", "bytes */" + std::to_string(size));
    } else {
        response.status = 206;
        response.fields.emplace_back("Content-Range",
                                     "bytes " + std::to_string(range->begin) + '-' +
                                         std::to_string(range->begin + range->length - 1) + '/' +
                                         std::to_string(size));
    }
    return *range;
}

}  // namespace

Awaitable<void> writeResponse(Stream& stream, const Limits& limits,
                              boost::asio::thread_pool& threads, Response& response,
                              ResponseManner& manner,
                              std::function<void(std::function<void()>)> onEnd) {
    Patience patience(limits.bodyPause, limits.bodyBytesPerSecond);
    const bool bodyWanted = !manner.headOnly && mayHaveBody(response.status);
    if (const auto* text = std::get_if<std::string>(&response.body)) {
        std::string head = headText(response, manner);
        if (mayHaveBody(response.status)) {
            addField(head, "Content-Length", std::to_string(text->size()));
        }
        head += "\r\n";
        const bool together = bodyWanted && text->size() <= kTogether;
        if (together) {
            head += *text;
        }
        co_await writeAll(stream, head, patience);
        if (bodyWanted && !together) {
            co_await writeAll(stream, *text, patience);
        }
    } else if (const auto* file = std::get_if<FileBody>(&response.body)) {
        const ByteRange range = chooseRange(response, file->size, manner.range);
        std::string head = headText(response, manner);
        addField(head, "Content-Length", std::to_string(range.length));
        co_await writeAll(stream, head + "\r\n", patience);
        if (bodyWanted) {
            co_await writeFile(stream, patience, threads, *file, range);
        }
    } else {
        manner.keepAlive = manner.keepAlive && manner.knowsChunks;
        std::string head = headText(response, manner);
        if (manner.knowsChunks) {
            addField(head, "Transfer-Encoding", "chunked");
        }
        co_await writeAll(stream, head + "\r\n", patience);
        if (bodyWanted) {
            ChunkWriter writer(stream, limits, manner.knowsChunks, std::move(onEnd));
            const StreamBody& produce = std::get<StreamBody>(response.body);
            co_await produce(writer);
            co_await writer.complete();
        }
    }
}

}  // namespace kolvan::server::http
