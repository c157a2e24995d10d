#pragma once

#include "companions/server/accounts/Actor.h"
#include "companions/server/accounts/LoginThrottle.h"
#include "companions/server/accounts/Passwords.h"
#include "companions/server/accounts/RefusalLog.h"
#include "companions/server/base/Clock.h"
#include "companions/server/store/Store.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace kolvan::server {

/// Somebody with a session.
struct SignedIn {
    User user;
    std::string crossSiteToken;  ///< must come back with each request that changes something
};

/// A login that has gone well.
struct NewSession {
    std::string cookie;  ///< the session's secret, shown once and kept nowhere
    SignedIn signedIn;
};

/// Why somebody was not let in. That the user does not exist is not told from a wrong password.
struct LoginRefused {
    std::optional<std::chrono::seconds> tryAgainAfter;  ///< too many attempts: how long to wait
};

/// Logins with name and password, and the sessions that come of them.
///
/// A session ends by logging out, after eight hours without a request, and after seven days in any
/// case. Each login makes a new one and ends the one whose cookie the browser has shown, so that a
/// cookie which somebody has planted there is never signed in.
///
/// Threads: any member from any thread. All block on the store; a login works for most of a second,
/// too.
/// @throws StoreError
class Logins {
public:
    static constexpr std::chrono::hours kLongestIdle{8};
    static constexpr std::chrono::hours kLongestLife{7 * 24};
    static constexpr std::chrono::hours kLifeOfFirstCode{24};

    /// @param ownStore, ownClock, ownPasswords, ownRefusals must live as long as this
    Logins(Store& ownStore, const Clock& ownClock, const Passwords& ownPasswords,
           RefusalLog& ownRefusals);

    /// Lets a user in. @param shownCookie the value that came with the request; may be empty
    std::variant<NewSession, LoginRefused> logIn(const std::string& name, std::string_view password,
                                                 std::string_view shownCookie,
                                                 const std::string& address);

    /// Whose session this is; nothing when it has ended. Counts as a request of it.
    std::optional<SignedIn> find(std::string_view cookie);

    /// Whether a session goes on. Unlike `find` this is no request of it: whoever only goes on
    /// listening does not keep it alive.
    bool isOpen(std::string_view cookie) const;

    /// Replaces the password of somebody with a session, who has to show the present one: a session
    /// alone, which somebody may have found open or stolen, is not enough. All sessions of the user
    /// end, and a new one begins.
    /// @throws std::invalid_argument when the new password will not do
    std::variant<NewSession, LoginRefused> changePassword(const User& user,
                                                          std::string_view present,
                                                          std::string_view next,
                                                          const std::string& address);

    /// Ends a session. One that has ended already is no error.
    void logOut(std::string_view cookie, const Actor& actor);

    /// Makes a one-time code for the first login, valid for a day, in place of the one before.
    /// @return nothing when there is a user already
    std::optional<std::string> makeFirstLoginCode();

    /// Makes the first user, an administrator, for somebody who knows the code, and lets the user
    /// in.
    /// @throws std::invalid_argument when name or password will not do; the code stays valid
    std::variant<NewSession, LoginRefused> redeemFirstLoginCode(std::string_view code,
                                                                const std::string& name,
                                                                std::string_view password,
                                                                const std::string& address);

    /// Whether the token that came with a request is the session's.
    static bool isFrom(const SignedIn& signedIn, std::string_view crossSiteToken) noexcept;

    /// Removes what has ended. To be called now and then.
    void removeEnded();

private:
    bool hasEnded(const Session& session) const;

    /// The user whose name and password these are.
    std::optional<User> userWith(const std::string& name, std::string_view password,
                                 const std::string& address);

    /// Begins a session. @return nothing when the password has changed since `user` was read
    std::optional<NewSession> begin(const User& user, const std::string& address);

    Store& store;
    const Clock& clock;
    const Passwords& passwords;
    RefusalLog& refusals;
    LoginThrottle throttle;
};

}  // namespace kolvan::server
