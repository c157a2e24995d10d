#include "collector/ProcessReader.h"

#include "basekit2/object_registry.h"

#include <cstddef>
#include <utility>

namespace cagnt1::operations {

ProcessReader::ProcessReader(std::function<void(const std::string&)> receiver)
    : callback(std::move(receiver)) {}

const std::string& ProcessReader::get_type() const {
    return basekit2::get_none_type();
}

basekit2::result_t ProcessReader::onData(const char* data, std::int32_t length) {
    if (callback) {
        callback(std::string(data, static_cast<std::size_t>(length)));
    }
    return basekit2::result_t::no_error();
}

}  // namespace cagnt1::operations
