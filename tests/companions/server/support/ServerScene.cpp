#include "tests/companions/server/support/ServerScene.h"

#include "companions/server/http/ListeningSocket.h"

#include <thread>

namespace kolvan::test {

ServerScene::~ServerScene() {
    if (served) {
        (void)stop();  // whoever wants to know has called it
    }
}

void ServerScene::start() {
    startOn(server::http::listenOn("127.0.0.1", 0));
}

void ServerScene::startOn(basekit2::UniqueFd socket) {
    settings.log = [this](std::string_view line) {
        const std::lock_guard lock(mutex);
        lines.emplace_back(line);
    };
    listeningPort = server::http::localPort(socket.get());
    networkThread.call([&] {
        served = std::make_unique<server::http::Server>(networkThread.executor(), pool, router,
                                                        settings);
        served->listen(std::move(socket));
    });
}

std::size_t ServerScene::stop(std::chrono::seconds patience) {
    const std::size_t left = networkThread.spawn(served->stop(patience)).get();
    networkThread.call([this] { served.reset(); });
    return left;
}

std::future<std::size_t> ServerScene::beginToStop(std::chrono::seconds patience) {
    auto left = networkThread.spawn(served->stop(patience));
    networkThread.call([] {});  // behind the first step of the stop
    return left;
}

void ServerScene::hurry(std::chrono::seconds patience) {
    networkThread.call([this, patience] { served->hurry(patience); });
}

std::size_t ServerScene::connections() {
    return networkThread.call([this] { return served->connections(); });
}

bool ServerScene::waitForConnections(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (connections() != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

std::vector<std::string> ServerScene::log() const {
    const std::lock_guard lock(mutex);
    return lines;
}

}  // namespace kolvan::test
