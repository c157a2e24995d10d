#pragma once

#include <mutex>
#include <set>
#include <string>

namespace basekit2 {

/// The names of the types that take part in the facility's object model.
///
/// Threads: any member from any thread.
class object_registry_t {
public:
    /// Makes `name` known and returns the registry's own copy of it, which lives as long as the
    /// program. The same name always gives the same object.
    /// @param exclusive true: the name must be new; false: several parts of a program may register
    ///        the type that they share
    /// @throws std::logic_error when `exclusive` is true and the name is known already
    const std::string& register_type(const std::string& name, bool exclusive);

    /// Whether `name` has been registered.
    bool is_registered(const std::string& name) const;

private:
    mutable std::mutex namesMutex;  // guards names; no other lock is taken under it
    std::set<std::string> names;    // a set, because its elements never move
};

/// The one registry of the process. Usable during static initialisation and never destroyed.
object_registry_t& get_object_registry();

/// Registers the name that all types without a name of their own share, "dasID_None", and returns
/// it.
const std::string& get_none_type();

}  // namespace basekit2
