#include "bench/server/Connection.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kolvan::bench {

namespace {

// Every connection is served on one thread: one buffer does for all.
std::array<char, 262144> buffer;

}  // namespace

bool Chunks::skip(std::string_view data) {
    while (!data.empty()) {
        if (left > 0) {
            const std::size_t skipped = std::min<std::uint64_t>(left, data.size());
            data.remove_prefix(skipped);
            left -= skipped;
        } else if (data.front() == '\n') {
            const std::uint64_t size = std::strtoull(sizeLine.c_str(), nullptr, 16);
            sizeLine.clear();
            last = size == 0;
            left = size + 2;
            data.remove_prefix(1);
        } else {
            sizeLine += data.front();
            data.remove_prefix(1);
        }
    }
    return last && left == 0;
}

Connection::Connection(Stream accepted, Script& serverScript)
    : stream(std::move(accepted)), script(serverScript) {}

bool Connection::advance() {
    for (;;) {
        Step step = Step::Blocked;
        switch (state) {
            case State::Head:
                step = readHead();
                break;
            case State::Body:
                step = chunked ? readChunkedBody() : readBody();
                break;
            case State::Held:
                // Nothing is to come before the answer but the end.
                step = stepOf(stream.read(buffer.data(), buffer.size()));
                break;
            case State::Answering:
                step = writeAnswer();
                break;
        }
        if (step != Step::Done) {
            return step == Step::Blocked;
        }
    }
}

Connection::Step Connection::stepOf(ssize_t outcome) const {
    return outcome > 0 ? Step::Done : outcome == 0 ? Step::Blocked : Step::Over;
}

Connection::Step Connection::readHead() {
    const std::size_t end = input.find("\r\n\r\n");
    if (end == std::string::npos) {
        const ssize_t got = stream.read(buffer.data(), buffer.size());
        input.append(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        return stepOf(got);
    }
    parseHead(std::string_view(input).substr(0, end));
    input.erase(0, end + 4);
    state = State::Body;
    return Step::Done;
}

void Connection::parseHead(std::string_view lines) {
    const std::size_t first = lines.find(' ');
    const std::size_t second = lines.find(' ', first + 1);
    request = {std::string(lines.substr(0, first)),
               std::string(lines.substr(first + 1, second - first - 1)), "", 0, monotonicTime()};
    const auto header = [lines](const char* name) {
        // libcurl writes its headers always alike.
        const std::size_t found = lines.find(name);
        return found == std::string_view::npos ? nullptr : lines.data() + found + std::strlen(name);
    };
    const char* const length = header("\r\nContent-Length: ");
    bodyLeft = length != nullptr ? std::strtoull(length, nullptr, 10) : 0;
    chunked = header("\r\nTransfer-Encoding: chunked") != nullptr;
    chunks = {};
    if (header("\r\nExpect: 100-continue") != nullptr) {
        constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        (void)stream.write(kContinue.data(), kContinue.size());
    }
}

Connection::Step Connection::readBody() {
    const auto take = [this](std::string_view data) {
        const std::size_t wanted =
            script.keptBytes() - std::min(script.keptBytes(), request.body.size());
        request.body.append(data.substr(0, wanted));
        request.bodySize += data.size();
        bodyLeft -= data.size();
    };
    take(std::exchange(input, {}));
    while (bodyLeft > 0) {
        ssize_t got = 0;
        if (request.body.size() < script.keptBytes()) {
            got = stream.read(buffer.data(), std::min<std::uint64_t>(bodyLeft, buffer.size()));
            take({buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))});
        } else {
            got = stream.discard(bodyLeft);
            request.bodySize += static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
            bodyLeft -= static_cast<std::uint64_t>(std::max<ssize_t>(got, 0));
        }
        if (got <= 0) {
            return stepOf(got);
        }
    }
    state = State::Held;
    if (std::optional<Answer> now = script.answer(request, stream.descriptor())) {
        begin(std::move(*now));
    }
    return Step::Done;
}

Connection::Step Connection::readChunkedBody() {
    bool complete = chunks.skip(input);
    request.bodySize += std::exchange(input, {}).size();
    while (!complete) {
        const ssize_t got = stream.read(buffer.data(), buffer.size());
        if (got <= 0) {
            return stepOf(got);
        }
        complete = chunks.skip({buffer.data(), static_cast<std::size_t>(got)});
        request.bodySize += static_cast<std::uint64_t>(got);
    }
    chunked = false;
    return Step::Done;
}

void Connection::begin(Answer&& next) {
    current = std::move(next);
    const std::size_t size = current.file ? current.fileSize : current.text.size();
    output =
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" + current.text;
    written = 0;
    state = State::Answering;
}

bool Connection::answer(Answer&& held) {
    begin(std::move(held));
    return advance();
}

Connection::Step Connection::writeAnswer() {
    while (written < output.size()) {
        const ssize_t sent = stream.write(output.data() + written, output.size() - written);
        if (sent <= 0) {
            return stepOf(sent);
        }
        written += static_cast<std::size_t>(sent);
    }
    while (current.file && current.fileSize > 0) {
        const ssize_t sent = stream.sendFile(current.file.get(), current.fileSize);
        if (sent <= 0) {
            return stepOf(sent);
        }
        current.fileSize -= static_cast<std::size_t>(sent);
    }
    state = State::Head;
    return Step::Done;
}

}  // namespace kolvan::bench
