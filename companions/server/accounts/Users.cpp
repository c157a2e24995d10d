#include "companions/server/accounts/Users.h"

#include "companions/server/accounts/Naming.h"
#include "companions/server/store/Names.h"

namespace kolvan::server {

User Users::add(const std::string& name, Role role, std::string_view password, const Actor& actor) {
    checkUserName(name);
    Passwords::check(password);
    User user = store.accounts().addUser(name, role, passwords.hash(password));
    store.audit().append(
        {0, {}, actor.name, actor.address, "user.add", name, "role " + std::string(nameOf(role))});
    return user;
}

UserChange Users::change(const UserId& user, std::optional<Role> role,
                         std::optional<std::string_view> password, const Actor& actor) {
    std::optional<std::string> hash;
    if (password) {
        Passwords::check(*password);
        hash = passwords.hash(*password);
    }
    const std::string name = nameOfUser(user);
    const UserChange change = store.accounts().changeUser(user, role, hash);
    if (password) {
        recorded(change, {0, {}, actor.name, actor.address, "user.password", name, ""});
    }
    if (role) {
        recorded(change, {0,
                          {},
                          actor.name,
                          actor.address,
                          "user.role",
                          name,
                          "role " + std::string(nameOf(*role))});
    }
    return change;
}

UserChange Users::remove(const UserId& user, const Actor& actor) {
    const std::string name = nameOfUser(user);
    return recorded(store.accounts().removeUser(user),
                    {0, {}, actor.name, actor.address, "user.remove", name, ""});
}

std::string Users::nameOfUser(const UserId& user) const {
    const std::optional<User> found = store.accounts().findUser(user);
    return found ? found->name : "";
}

UserChange Users::recorded(UserChange change, const AuditLine& line) {
    if (change == UserChange::Made) {
        store.audit().append(line);
    }
    return change;
}

}  // namespace kolvan::server
