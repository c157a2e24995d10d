#include "basekit2/object_registry.h"

#include <stdexcept>

namespace basekit2 {

const std::string& object_registry_t::register_type(const std::string& name, bool exclusive) {
    const std::lock_guard lock(namesMutex);
    const auto [position, inserted] = names.insert(name);
    if (!inserted && exclusive) {
        throw std::logic_error("Type is already registered: " + name);
    }
    return *position;
}

bool object_registry_t::is_registered(const std::string& name) const {
    const std::lock_guard lock(namesMutex);
    return names.contains(name);
}

object_registry_t& get_object_registry() {
    static auto& registry = *new object_registry_t;
    return registry;
}

const std::string& get_none_type() {
    static const std::string& name = get_object_registry().register_type("dasID_None", false);
    return name;
}

}  // namespace basekit2
