#pragma once

#include "basekit2/UniqueFd.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace kolvan::test {

/// Path of the server's program.
extern const std::string kServerProgram;

/// What a run of the server's program has said.
struct ServerAnswer {
    int exitCode = -1;  ///< 128 + n for signal n
    std::string output;
    std::string errors;
};

/// Runs the server's program to its end, with `input` as its standard input.
/// @param environment replaces that of the test
ServerAnswer runServer(const std::vector<std::string>& arguments, const std::string& input = "",
                       const std::vector<std::string>& environment = {});

/// A run of the program at a terminal of its own. The destructor kills it when it still runs.
class ServerAtTerminal {
public:
    explicit ServerAtTerminal(const std::vector<std::string>& arguments);
    ~ServerAtTerminal();

    ServerAtTerminal(const ServerAtTerminal&) = delete;
    ServerAtTerminal& operator=(const ServerAtTerminal&) = delete;

    /// Reads until this text was shown. @throws std::runtime_error when the program ends before
    void waitFor(const std::string& text);

    /// Presses these keys.
    void type(const std::string& keys) const;

    /// Whether the terminal shows what is typed.
    bool showsKeys() const;

    /// Takes the terminal away, as somebody does who closes its window.
    void hangUp() { terminal.reset(); }

    /// Reads to the end. @return the exit code, 128 + n for signal n
    int finish();

    /// Everything that the terminal has shown until now.
    const std::string& shown() const { return screen; }

private:
    bool readSome();

    pid_t child = -1;
    basekit2::UniqueFd terminal;
    std::string screen;
};

}  // namespace kolvan::test
