#include "collector/ProcessFeedbackReader.h"

#include <utility>

namespace cagnt1::operations {

ProcessFeedbackReader::ProcessFeedbackReader(std::function<void(const std::string&)> receiver)
    : ProcessReader(std::move(receiver)), extraArguments{"--ui-output-format", "xml"} {}

basekit2::result_t ProcessFeedbackReader::attach(basekit2::process::IProcess& process) {
    std::string descriptor;
    const basekit2::result_t opened = process.openOutputPipe(
        basekit2::ref_ptr_t<basekit2::process::IPipeReaderCallback>(this), descriptor);
    if (opened == basekit2::result_t::no_error()) {
        extraArguments.emplace_back("--ui-output-fd");
        extraArguments.push_back(std::move(descriptor));
    }
    return opened;
}

}  // namespace cagnt1::operations
