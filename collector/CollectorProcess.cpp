#include "collector/CollectorProcess.h"

#include "basekit2/object_registry.h"
#include "collector/ProcessFeedbackReader.h"
#include "collector/ProcessOutputReader.h"

#include <cstdint>
#include <initializer_list>
#include <utility>

namespace cagnt1::operations {

namespace {

using basekit2::make_ref_counted;
using basekit2::result_t;
using basekit2::process::IProcess;

// The names of the facility's own interfaces in its object registry, and the name that an object of
// no registered type gives.
struct TypeRegistration {
    TypeRegistration() {
        for (const char* name :
             {"dasID_basekit2::process::IProcess", "dasID_constbasekit2::process::IProcess",
              "dasID_basekit2::serializable_object_interface_t",
              "dasID_constbasekit2::serializable_object_interface_t"}) {
            basekit2::get_object_registry().register_type(name, false);
        }
        (void)basekit2::get_none_type();  // for its registration
    }
};
const TypeRegistration typeRegistration;

}  // namespace

CollectorProcess::CollectorProcess(std::string executablePath, std::string workingDirectory,
                                   const std::vector<std::string>& arguments,
                                   const OperationMessenger& messenger)
    : executablePath(std::move(executablePath)),
      workingDirectory(std::move(workingDirectory)),
      arguments(arguments),
      process(IProcess::create()),
      feedbackReader(make_ref_counted<ProcessFeedbackReader>(messenger.onFeedback)),
      stdoutReader(make_ref_counted<ProcessOutputReader>(messenger.onStdout, 1)),
      stderrReader(make_ref_counted<ProcessOutputReader>(messenger.onStderr, 2)) {}

CollectorProcess::~CollectorProcess() = default;

bool CollectorProcess::start() {
    for (ProcessReader* reader : std::initializer_list<ProcessReader*>{
             feedbackReader.get(), stdoutReader.get(), stderrReader.get()}) {
        if (reader->attached) {
            return false;
        }
        const result_t attached = reader->attach(*process);
        if (attached.is_failure()) {
            reportNotStarted(attached);
            return false;
        }
        reader->attached = true;
    }
    arguments.insert(arguments.end(), feedbackReader->extraArguments.begin(),
                     feedbackReader->extraArguments.end());
    const result_t started = process->start(
        executablePath, basekit2::make_generic_iterator(arguments), /*environment=*/{},
        workingDirectory, /*reserved1=*/0, /*reserved2=*/0, /*searchPath=*/1);
    if (started != result_t::no_error()) {
        reportNotStarted(started);
        return false;
    }
    return true;
}

// In the words of a shell. There is no child, so nobody else writes to the channel.
void CollectorProcess::reportNotStarted(result_t reason) {
    const std::string line = executablePath + ": " + reason.error_code().message() + "\n";
    (void)stderrReader->onData(line.data(), static_cast<std::int32_t>(line.size()));
}

int CollectorProcess::wait() {
    return process->wait();
}

bool CollectorProcess::terminate() {
    return process->terminate() == result_t::no_error();
}

}  // namespace cagnt1::operations
