#include "operations/RunCommand.h"

#include "basekit2/object_registry.h"
#include "basekit2/process/IProcess.h"

#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>

#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include <unistd.h>

namespace cagnt1::operations {

namespace {

using basekit2::result_t;

class OutputReceiver : public basekit2::process::IPipeReaderCallback {
public:
    explicit OutputReceiver(std::string& output) : output(output) {}

    result_t onData(const char* data, std::int32_t length) override {
        output.append(data, static_cast<std::size_t>(length));
        return result_t::no_error();
    }

    const std::string& get_type() const override { return basekit2::get_none_type(); }

private:
    std::string& output;
};

// Between single quotes the shell takes every character literally, except the single quote.
std::string quoteForShell(const std::string& text) {
    std::string quoted = "'";
    quoted += boost::algorithm::replace_all_copy(text, "'", "'\\''");
    quoted += "'";
    return quoted;
}

}  // namespace

// Not popen(3): its child would inherit our blocked signals and whatever descriptors other
// threads have open at that moment. The process facility runs the same shell without either.
std::string runCommand(const std::string& program, const std::vector<std::string>& args) {
    std::string command = quoteForShell(program);
    command += ' ';
    command += boost::algorithm::join(args, std::string(" "));
    const std::vector<std::string> shellArguments{"-c", command};
    std::string output;
    const auto receiver = basekit2::make_ref_counted<OutputReceiver>(output);
    const auto shell = basekit2::process::IProcess::create();
    if (shell->connectOutputStream(STDOUT_FILENO, receiver).is_failure() ||
        shell->start("/bin/sh", basekit2::make_generic_iterator(shellArguments), /*environment=*/{},
                     /*workingDirectory=*/{}, /*reserved1=*/0, /*reserved2=*/0,
                     /*searchPath=*/0) != result_t::no_error()) {
        throw std::runtime_error("Failed to pipe output of " + program);
    }
    (void)shell->wait();  // the exit status: a command is judged by what it has printed
    return output;
}

}  // namespace cagnt1::operations
