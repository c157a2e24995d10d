#include "tests/support/player/LiveView.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace kolvan::test {
namespace {

std::string outputPrefix(const std::string& id, Channel channel) {
    return "[" + id + " " + std::string(channelName(channel)) + "] ";
}

}  // namespace

ServerObserver LiveView::observer() {
    ServerObserver observer;
    observer.onMessage = [this](const AgentMessage& message) { showMessage(message); };
    observer.onOutput = [this](const OutputChunk& chunk) { showOutput(chunk); };
    observer.onSent = [this](const std::vector<AgentMessage>& commands) {
        for (const AgentMessage& command : commands) {
            showCommand(command);
        }
    };
    observer.onPackage = [this](const std::string& name, bool found) {
        line("package " + name + (found ? " is sent" : " is asked for, but there is none"));
    };
    observer.onUpload = [this](const UploadRecord& upload) { showUpload(upload); };
    observer.onProblem = [this](const std::string& problem) { line("problem: " + problem); };
    return observer;
}

void LiveView::showMessage(const AgentMessage& message) {
    if (message.type == "connect") {
        line("agent connected: host " + message.parameter("hostname") + ", uuid " +
             message.parameter("agentUuid"));
    } else if (message.type == "disconnect") {
        line("agent disconnected");
    } else if (message.type == "collector:operations:cancelled") {
        line("agent has cancelled");
    } else if (message.type == "collector:finish") {
        showFinish(message);
    } else if (message.type == "error") {
        line("agent reports an error: " + message.parameter("errorMessage"));
    }
}

void LiveView::showOutput(const OutputChunk& chunk) {
    std::string& rest = rests[{chunk.id, chunk.channel}];
    rest += chunk.text;
    std::size_t begin = 0;
    for (std::size_t end = rest.find('\n'); end != std::string::npos;
         end = rest.find('\n', begin)) {
        line(outputPrefix(chunk.id, chunk.channel) + rest.substr(begin, end - begin));
        begin = end + 1;
    }
    rest.erase(0, begin);
}

void LiveView::showFinish(const AgentMessage& message) {
    const std::string id = message.parameter("id");
    showRest(id);
    if (message.parameters.contains("errorMessage")) {
        line("[" + id + "] failed: " + message.parameter("errorMessage"));
    } else {
        line("[" + id + "] finished with code " + message.parameter("code"));
    }
}

void LiveView::showCommand(const AgentMessage& command) {
    const std::string id = command.parameter("id");
    if (command.type == "collector:execute") {
        line("-> execute " + id + ": " + command.parameter("args"));
    } else if (command.type == "collector:collection:start") {
        line("-> start collection " + id + ", traces to " +
             command.parameter("traceUploadDirectory"));
    } else if (command.type == "collector:collection:command") {
        line("-> command " + id + ": " + command.parameter("command"));
    } else if (command.type == "collector:operations:cancel") {
        line("-> cancel");
    } else {
        line("-> " + command.type);
    }
}

void LiveView::showUpload(const UploadRecord& upload) {
    line("upload " + upload.remoteDirectory + "/" + upload.fileName + ", " +
         readableSize(upload.size));
}

void LiveView::showRest(const std::string& id) {
    for (const Channel channel : kChannels) {
        const auto rest = rests.find({id, channel});
        if (rest == rests.end()) {
            continue;
        }
        if (!rest->second.empty()) {
            line(outputPrefix(id, channel) + rest->second);
        }
        rests.erase(rest);
    }
}

void LiveView::line(std::string_view text) {
    out << printable(text) + "\n" << std::flush;
}

std::string printable(std::string_view text) {
    std::string result;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if ((byte < 0x20 && character != '\t') || byte == 0x7F) {
            std::array<char, 5> escape{};
            std::snprintf(escape.data(), escape.size(), "\\x%02X", static_cast<unsigned>(byte));
            result += escape.data();
        } else {
            result.push_back(character);
        }
    }
    return result;
}

std::string readableSize(std::uint64_t bytes) {
    constexpr std::array<const char*, 4> kUnits = {"kB", "MB", "GB", "TB"};
    if (bytes < 1000) {
        return std::to_string(bytes) + " bytes";
    }
    double size = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    while (size >= 999.95 && unit + 1 < kUnits.size()) {
        size /= 1000;
        ++unit;
    }
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", size, kUnits[unit]);
    return text.data();
}

}  // namespace kolvan::test
