#pragma once

#include "tests/support/standin/OutputLog.h"

#include <cstddef>
#include <functional>
#include <istream>
#include <optional>
#include <string>
#include <vector>

namespace kolvan::test {

/// One step of a scenario: something to send, or something to wait for.
struct ScenarioStep {
    enum class Action {
        Execute,        ///< `id`, `argument`: the collector's arguments
        Start,          ///< `id`, `argument`: trace upload directory, `options`
        Command,        ///< `id`, `argument`: the collection command
        Cancel,         ///
        Stop,           ///
        WaitConnected,  ///
        WaitFinish,     ///< `id`, `end` and, when it says so, `code`
        WaitOutput,     ///< `id`, `channel`, `argument`: text that has to appear
        WaitCancelled,  ///< until the agent has confirmed every "cancel" so far
        WaitUpload      ///< `argument`: directory into which, or below which, a file has to arrive
    };

    /// What kind of end a `WaitFinish` accepts.
    enum class End {
        AnyCode,  ///
        Code,     ///< exactly `code`
        Error     ///< a failure instead of a code
    };

    Action action = Action::Stop;
    std::size_t line = 0;  ///< in the scenario file, from 1
    std::string text;      ///< as written, without the lines of a block
    std::string id;
    std::string argument;
    std::string options;
    Channel channel = Channel::Stdout;
    End end = End::AnyCode;
    int code = 0;
};

/// Finds the value of a `${NAME}` in a scenario; nothing when it has none.
using Variables = std::function<std::optional<std::string>(const std::string& name)>;

/// Returns the variables of the environment.
Variables environmentVariables();

/// Reads a scenario, one step a line. Empty lines and lines that begin with "#" are skipped.
///
///     execute ID [ARGUMENTS]             run the collector; arguments separated by one blank
///     start ID DIRECTORY <<END           start a collection; option lines follow, up to END
///     command ID TEXT                    pass a command to the running collection
///     cancel                             cancel the running collection
///     stop                               ask the agent to end
///     wait-connected
///     wait-finish ID [CODE|error]        without CODE: any exit code, but no failure
///     wait-output ID CHANNEL "TEXT"      CHANNEL: feedback, stdout or stderr
///     wait-cancelled
///     wait-upload DIRECTORY
///
/// @param name what messages call the scenario
/// @throws std::runtime_error "NAME:LINE: what is wrong"
std::vector<ScenarioStep> readScenario(std::istream& input, const std::string& name,
                                       const Variables& variables);

}  // namespace kolvan::test
