#pragma once

#include <string>

namespace basekit2 {

/// Root of the facility's interfaces: an object with an intrusive reference count that can tell
/// the name of its type.
///
/// Objects are created with a count of zero by `new ref_counted_t<...>` and owned through
/// `ref_ptr_t`; nobody calls `delete`.
class serializable_object_interface_t {
public:
    serializable_object_interface_t(const serializable_object_interface_t&) = delete;
    serializable_object_interface_t& operator=(const serializable_object_interface_t&) = delete;

    /// Takes one reference. Any thread.
    virtual void add_ref() noexcept = 0;

    /// Drops one reference; the last one destroys the object on the calling thread. Any thread.
    virtual void release() noexcept = 0;

    /// Name of the object's type in the object registry; "dasID_None" for a type without a name
    /// of its own. The text lives as long as the program.
    virtual const std::string& get_type() const = 0;

protected:
    serializable_object_interface_t() = default;
    virtual ~serializable_object_interface_t() = default;
};

}  // namespace basekit2
