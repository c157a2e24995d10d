#pragma once

#include "companions/server/accounts/Logins.h"
#include "companions/server/accounts/Passwords.h"
#include "companions/server/accounts/RefusalLog.h"
#include "companions/server/accounts/Tokens.h"
#include "companions/server/accounts/Users.h"
#include "companions/server/store/SqliteStore.h"
#include "tests/companions/server/support/FailureOf.h"
#include "tests/companions/server/support/SetClock.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kolvan::server {

/// Accounts on a store of their own, with passwords that cost next to nothing.
class AccountsTest : public testing::Test {
protected:
    static constexpr Passwords::Cost kCheap{1, 8192};
    static constexpr char kPassword[] = "correct horse";
    static constexpr char kAddress[] = "192.0.2.1";

    const test::TemporaryDirectory directory;
    test::SetClock clock;
    SqliteStore store{directory.entry("kolvan.sqlite"), clock};
    const Passwords passwords{kCheap};
    RefusalLog refusals{store.audit(), clock};
    Users users{store, passwords};
    Tokens tokens{store, clock, refusals};
    Logins logins{store, clock, passwords, refusals};
    const Actor boss{"boss", "192.0.2.7"};

    /// Lines of the audit, oldest first, as "ACTOR@ADDRESS ACTION SUBJECT (DETAIL)".
    std::vector<std::string> audit() {
        std::vector<std::string> lines;
        for (const AuditLine& line : store.audit().list({}, {1000, ""}).items) {
            lines.insert(lines.begin(), line.actor + "@" + line.address + " " + line.action + " " +
                                            line.subject + " (" + line.detail + ")");
        }
        return lines;
    }
};

}  // namespace kolvan::server
