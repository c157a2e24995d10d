#include "collector/ProcessOutputReader.h"

#include <utility>

namespace cagnt1::operations {

ProcessOutputReader::ProcessOutputReader(std::function<void(const std::string&)> receiver,
                                         std::int32_t streamNumber)
    : ProcessReader(std::move(receiver)), streamNumber(streamNumber) {}

basekit2::result_t ProcessOutputReader::attach(basekit2::process::IProcess& process) {
    return process.connectOutputStream(
        streamNumber, basekit2::ref_ptr_t<basekit2::process::IPipeReaderCallback>(this));
}

}  // namespace cagnt1::operations
