#pragma once

#include "companions/server/accounts/Actor.h"
#include "companions/server/accounts/Passwords.h"
#include "companions/server/store/Store.h"

#include <optional>
#include <string>
#include <string_view>

namespace kolvan::server {

/// Who has an account. Each change is a line in the audit.
///
/// Threads: any member from any thread. All block on the store, and those with a password work for
/// most of a second.
/// @throws StoreError
class Users {
public:
    /// @param ownStore, ownPasswords must live as long as this
    Users(Store& ownStore, const Passwords& ownPasswords)
        : store(ownStore), passwords(ownPasswords) {}

    /// @throws std::invalid_argument when name or password will not do
    User add(const std::string& name, Role role, std::string_view password, const Actor& actor);

    /// Changes what is given, all of it or nothing, and ends the user's sessions.
    /// @throws std::invalid_argument when the password will not do
    UserChange change(const UserId& user, std::optional<Role> role,
                      std::optional<std::string_view> password, const Actor& actor);

    UserChange remove(const UserId& user, const Actor& actor);

private:
    std::string nameOfUser(const UserId& user) const;

    /// Appends the line when the change was made.
    UserChange recorded(UserChange change, const AuditLine& line);

    Store& store;
    const Passwords& passwords;
};

}  // namespace kolvan::server
