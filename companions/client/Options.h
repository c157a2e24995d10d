#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::client {

/// What the command line asks for.
struct Options {
    enum class Command {
        Help,
        Login,
        Agents,
        Processes,
        Profile,
        Collections,
        Show,
        Top,
        Compare,
        Get,
        Cancel,
        AddAgentToken,
        ListAgentTokens,
        RevokeAgentToken,
    };

    Command command = Command::Help;
    std::string text;  ///< of the help

    std::string server;         ///< empty: from the environment or the configuration
    std::string tokenFile;      ///< the same
    std::string authorityFile;  ///< the same
    bool json = false;

    std::string address;  ///< to log in to
    std::string agent;    ///< id, name or host name
    std::string id;       ///< of a collection; the base of a comparison
    std::string other;    ///< of a comparison
    std::string file;     ///< to write to; empty: standard output, or none
    std::string format = "pprof";
    std::string state;
    std::size_t count = 10;

    std::optional<std::int64_t> pid;
    std::vector<std::string> program;  ///< with its arguments
    std::optional<double> durationSeconds;
    int frequency = 999;
    std::string kind = "cpu";
    std::string name;  ///< of a collection, or of an agent's token
    bool children = true;
    bool shared = false;  ///< a token is for many machines

    std::string thread;  ///< empty: all
    std::string from;
    std::string to;
    std::string sampleType;
};

/// @throws UsageError with a sentence for the user
Options readOptions(int argc, const char* const* argv);

}  // namespace kolvan::client
