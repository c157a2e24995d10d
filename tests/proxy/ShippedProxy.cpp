#include "tests/proxy/ShippedProxy.h"

#include "basekit2/UniqueFd.h"
#include "tests/endtoend/AgentScene.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kolvan::test {
namespace {

namespace fs = std::filesystem;

/// The ports below ask for privileges, ip(7).
constexpr int kFirstUserPort = 1024;
constexpr int kAttempts = 100;

const fs::path kConfigurations = KOLVAN_PROXY_CONFIGURATIONS;

basekit2::UniqueFd makeSocket() {
    basekit2::UniqueFd made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) {
        throw std::system_error(errno, std::generic_category(), "socket");
    }
    return made;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool acceptsConnections(int port) {
    const basekit2::UniqueFd client = makeSocket();
    const sockaddr_in address = loopback(port);
    return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
           0;
}

std::string replaced(std::string text, const Replacements& replacements) {
    for (const auto& [old, replacement] : replacements) {
        const std::size_t found = text.find(old);
        if (found == std::string::npos || text.find(old, found + 1) != std::string::npos) {
            throw std::runtime_error("not exactly once in the configuration: " + old);
        }
        text.replace(found, old.size(), replacement);
    }
    return text;
}

std::string ownName() {
    const passwd* const entry = ::getpwuid(::getuid());
    return entry == nullptr ? "nobody" : entry->pw_name;
}

/// The first of the ports that are given to connections and to listeners without a port, ip(7).
int firstPortOfTheKernel() {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int first = 0;
    if (!(range >> first) || first <= kFirstUserPort) {
        throw std::runtime_error("no ports are left to those who name theirs");
    }
    return first;
}

}  // namespace

int unusedPort() {
    // Below those that the kernel gives to whoever asks for any port: one of these could be taken
    // by another test's connection while nobody listens.
    std::random_device random;
    std::uniform_int_distribution<int> some(kFirstUserPort, firstPortOfTheKernel() - 1);
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const int port = some(random);
        const basekit2::UniqueFd listener = makeSocket();
        const sockaddr_in address = loopback(port);
        if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
            0) {
            return port;
        }
        if (errno != EADDRINUSE) {
            throw std::system_error(errno, std::generic_category(), "bind");
        }
    }
    throw std::runtime_error("all ports seem to be taken");
}

ShippedProxy::ShippedProxy(ProxyKind proxyKind, const AgentInstallation& installation,
                           int serverPort, const Replacements& changes)
    : kind(proxyKind), port(unusedPort()) {
    makeCertificate(place.path());
    place.write("key-and-certificate.pem",
                readFile(place.entry("key.pem")) + readFile(place.entry("certificate.pem")));
    if (kind == ProxyKind::Nginx) {
        startNginx(AgentLaunch(installation), serverPort, changes);
    } else {
        startHaProxy(AgentLaunch(installation), serverPort, changes);
    }
    if (!lookUntil([this] { return !process->isRunning() || acceptsConnections(port); }) ||
        !process->isRunning()) {
        throw std::runtime_error("the proxy does not start: " + process->errors());
    }
}

void ShippedProxy::startNginx(AgentLaunch launch, int serverPort, const Replacements& changes) {
    // Whoever is not root cannot write where the distribution's nginx keeps its temporary files.
    std::string places = "http {\n";
    for (const char* kindOfFile : {"client_body", "proxy", "fastcgi", "scgi", "uwsgi"}) {
        places +=
            std::string("    ") + kindOfFile + "_temp_path " + place.entry(kindOfFile) + ";\n";
    }
    std::string text = replaced(
        readFile(kConfigurations / "nginx.conf"),
        {{"user www-data;", "user " + ownName() + ";"},
         {"http {\n", places},
         {"/var/log/nginx/kolvan-agents.log", place.entry("requests.log")},
         {"server 127.0.0.1:8080 ", "server 127.0.0.1:" + std::to_string(serverPort) + " "},
         {"listen 443 ", "listen 127.0.0.1:" + std::to_string(port) + " "},
         {"/etc/nginx/kolvan/certificate.pem", place.entry("certificate.pem")},
         {"/etc/nginx/kolvan/key.pem", place.entry("key.pem")}});
    text = replaced(std::move(text), changes);
    launch.program = "/usr/sbin/nginx";
    launch.firstArgument = launch.program;
    launch.moreArguments = {"-c", place.write("nginx.conf", text),
                            "-e", "stderr",
                            "-g", "daemon off; pid " + place.entry("nginx.pid") + ";"};
    process = std::make_unique<AgentProcess>(launch);
}

void ShippedProxy::startHaProxy(AgentLaunch launch, int serverPort, const Replacements& changes) {
    std::string text =
        replaced(readFile(kConfigurations / "haproxy.cfg"),
                 {{"log /dev/log local0", "log stdout format raw local0"},
                  {"127.0.0.1:8080", "127.0.0.1:" + std::to_string(serverPort)},
                  {"bind :443 ", "bind 127.0.0.1:" + std::to_string(port) + " "},
                  {"/etc/haproxy/kolvan.pem", place.entry("key-and-certificate.pem")}});
    text = replaced(std::move(text), changes);
    launch.program = "/usr/sbin/haproxy";
    launch.firstArgument = launch.program;
    launch.moreArguments = {"-db", "-f", place.write("haproxy.cfg", text)};
    process = std::make_unique<AgentProcess>(launch);
}

std::string ShippedProxy::log() const {
    return kind == ProxyKind::Nginx ? readFile(place.entry("requests.log")) : process->output();
}

}  // namespace kolvan::test
