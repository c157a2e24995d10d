#include "companions/server/http/Connection.h"

#include "companions/server/http/HttpError.h"
#include "companions/server/http/RequestReader.h"
#include "companions/server/http/ResponseWriter.h"

#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <exception>
#include <optional>
#include <random>

namespace kolvan::server::http {
namespace {

// How long, and how fast at least, a client may go on sending what nobody reads, so that it gets to
// read why: with bytes unread, a close would throw the answer away.
constexpr std::chrono::seconds kFarewell{5};
constexpr std::size_t kFarewellBytesPerSecond = std::size_t{1024} * 1024;
constexpr std::size_t kFarewellBytes = std::size_t{16} * 1024 * 1024;

std::string joined(const std::vector<std::string_view>& words) {
    std::string text;
    for (const std::string_view word : words) {
        text.append(text.empty() ? "" : ", ").append(word);
    }
    return text;
}

Response problemOf(const HttpError& error) {
    Response response = problemResponse(error.status(), error.what());
    if (error.status() == 503) {
        response.fields.emplace_back("Retry-After", "5");
    }
    return response;
}

std::string makeFailureNumber() {
    std::random_device random;
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "%08x", random());
    return text.data();
}

class EndWatch {
public:
    explicit EndWatch(Socket& watched) : socket(watched) {}
    ~EndWatch() { socket.endWatch(); }
    EndWatch(const EndWatch&) = delete;
    EndWatch& operator=(const EndWatch&) = delete;

private:
    Socket& socket;
};

class ServedConnection final : public Connection {
public:
    ServedConnection(std::unique_ptr<Stream> opened, std::string peerAddress, bool isSecure,
                     bool isBusy, const ConnectionSurroundings& outside)
        : stream(std::move(opened)),
          peer(std::move(peerAddress)),
          secure(isSecure),
          busy(isBusy),
          surroundings(outside),
          reader(*stream, outside.limits) {}

    Awaitable<void> run() override {
        try {
            co_await stream->open(surroundings.limits.handshake);
            while (co_await serveOne()) {
            }
            stream->closeWriting();
            if (!reader.isComplete()) {
                co_await takeRest();
            }
        } catch (const ConnectionLost&) {
            // Clients come and go; whoever had something to lose has been told.
        }
    }

    void finish() override {
        finishing = true;
        if (idle && served != 0) {
            stream->socket().shutDownReading();
        }
        tellEnd();
    }

    void abandon() override {
        finish();
        stream->socket().shutDown();
    }

private:
    // One request and its response. True: there may be another one.
    Awaitable<bool> serveOne() {
        std::optional<RequestHead> head;
        std::optional<HttpError> refusal;
        idle = true;
        try {
            const Limits& limits = surroundings.limits;
            head = co_await reader.readHead(served == 0 ? limits.firstHead : limits.nextHead);
            if (!head) {
                co_return false;
            }
        } catch (const HttpError& error) {
            refusal = error;
        }
        idle = false;
        ++served;
        ResponseManner manner;
        if (head) {
            manner.headOnly = head->method == "HEAD";
            manner.range = findField(head->fields, "Range").value_or("");
        }
        Response response;
        if (refusal) {
            response = problemResponse(refusal->status(), refusal->what());
        } else {
            response = co_await answer(std::move(*head));
        }
        manner.knowsChunks = reader.knowsChunks();
        manner.keepAlive =
            !refusal && !busy && !finishing && !slow && reader.isComplete() && reader.keepsAlive();
        co_await respond(response, manner);
        co_return manner.keepAlive && !finishing;
    }

    Awaitable<Response> answer(RequestHead head) {
        head.peer = peer;
        head.secure = secure;
        Request request(std::move(head), reader);
        // What the handler has asked to be called refers to the handler.
        const EndWatch endWatch(stream->socket());
        std::string failure;
        try {
            co_return co_await dispatch(request);
        } catch (const HttpError& error) {
            co_return problemOf(error);
        } catch (const TooSlow&) {
            slow = true;
            co_return problemResponse(408, "The body came too slowly.");
        } catch (const ConnectionLost&) {
            throw;
        } catch (const std::exception& error) {
            failure = error.what();
        }
        const std::string number = makeFailureNumber();
        surroundings.log("Failure " + number + ": " + failure);
        co_return problemResponse(
            500, "The server could not do this. Its log says why, with the number " + number + ".");
    }

    Awaitable<Response> dispatch(Request& request) {
        if (busy) {
            throw HttpError(503, "The server has as many connections as it can serve.");
        }
        const RequestHead& head = request.head();
        const Router::Match match =
            surroundings.router.find(head.method, head.target.segments, request.places);
        if (match.route == nullptr) {
            if (match.allowed.empty()) {
                throw HttpError(404, "There is nothing at this address.");
            }
            Response response = problemResponse(405, "This address does not know the method.");
            response.fields.emplace_back("Allow", joined(match.allowed));
            co_return response;
        }
        reader.limitBody(match.route->bodyLimit);
        co_return co_await match.route->handler(request);
    }

    Awaitable<void> respond(Response& response, ResponseManner& manner) {
        bool written = false;
        std::string failure;
        try {
            const auto registerEnd = [this](std::function<void()> ended) {
                onEnd(std::move(ended));
            };
            co_await writeResponse(*stream, surroundings.limits, surroundings.threads, response,
                                   manner, registerEnd);
            written = true;
        } catch (const ConnectionLost&) {
            // `written` says so.
        } catch (const std::exception& error) {
            failure = error.what();
        }
        streamEnd = nullptr;
        stream->socket().endWatch();
        ++surroundings.traffic.responses.at(response.status / 100);
        if (response.sent) {
            response.sent(written);
        }
        if (!failure.empty()) {
            surroundings.log("A response was broken off: " + failure);
        }
        if (!written) {
            throw ConnectionLost("a response could not be written");
        }
    }

    void onEnd(std::function<void()> ended) {
        if (finishing) {
            ended();
            return;
        }
        streamEnd = std::move(ended);
        stream->socket().watchForHangUp([this] { tellEnd(); });
    }

    void tellEnd() {
        if (streamEnd) {
            std::exchange(streamEnd, nullptr)();
        }
    }

    Awaitable<void> takeRest() {
        std::vector<char> piece(std::size_t{16} * 1024);
        Patience patience(kFarewell, kFarewellBytesPerSecond);
        for (std::size_t taken = 0; taken < kFarewellBytes;) {
            const auto begin = std::chrono::steady_clock::now();
            const std::size_t length = co_await stream->readSome(piece, patience.left());
            if (length == 0) {
                break;
            }
            patience.spend(std::chrono::steady_clock::now() - begin, length);
            taken += length;
        }
    }

    const std::unique_ptr<Stream> stream;
    const std::string peer;
    const bool secure;
    const bool busy;
    const ConnectionSurroundings& surroundings;
    RequestReader reader;
    std::function<void()> streamEnd;  // of the stream that is being sent
    std::size_t served = 0;           // requests
    bool idle = false;                // waits for a request
    bool finishing = false;
    bool slow = false;  // the client has been given up
};

}  // namespace

std::unique_ptr<Connection> makeConnection(std::unique_ptr<Stream> stream, std::string peer,
                                           bool secure, bool busy,
                                           const ConnectionSurroundings& surroundings) {
    return std::make_unique<ServedConnection>(std::move(stream), std::move(peer), secure, busy,
                                              surroundings);
}

}  // namespace kolvan::server::http
