#pragma once

#include "companions/server/store/Records.h"

namespace kolvan::server {

/// What somebody may want to do.
enum class Permission {
    Look,            ///< at agents, collections, profiles and packages
    Collect,         ///< make, stop, cancel, name and remove collections; ask for processes
    ManageAgents,    ///< make and revoke the tokens of agents, put packages there
    ManageAccounts,  ///< users and API tokens
    ReadAudit,
    ChangeSettings,
};

/// Whether a role has a permission. A higher role has all of a lower one.
constexpr bool may(Role role, Permission permission) noexcept {
    switch (permission) {
        case Permission::Look:
            return true;
        case Permission::Collect:
            return role != Role::Viewer;
        default:
            return role == Role::Administrator;
    }
}

}  // namespace kolvan::server
