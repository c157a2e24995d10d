#include "companions/server/accounts/Logins.h"

#include "companions/server/accounts/Naming.h"
#include "companions/server/accounts/Secret.h"
#include "companions/server/store/StoreError.h"

#include <stdexcept>
#include <utility>

namespace kolvan::server {

namespace {

// Writing down each request would cost more than it tells.
constexpr std::chrono::minutes kExactnessOfLastUse{1};

// What is no name is nobody's. It is neither kept nor written down, whatever it is.
std::string nameOrNobody(const std::string& name) {
    try {
        checkUserName(name);
        return name;
    } catch (const std::invalid_argument&) {
        return "";
    }
}

void touch(Store& store, const Sha256& session) {
    try {
        store.accounts().touchSession(session);
    } catch (const StoreError&) {
        // Deliberate: on a full disk, people can still look, and remove what takes the room.
    }
}

/// What becomes of a session that could not begin because somebody has changed the password just
/// now.
std::variant<NewSession, LoginRefused> resultOf(std::optional<NewSession> session) {
    if (!session) {
        return LoginRefused{};
    }
    return *std::move(session);
}

}  // namespace

Logins::Logins(Store& ownStore, const Clock& ownClock, const Passwords& ownPasswords,
               RefusalLog& ownRefusals)
    : store(ownStore),
      clock(ownClock),
      passwords(ownPasswords),
      refusals(ownRefusals),
      throttle(ownClock) {}

std::variant<NewSession, LoginRefused> Logins::logIn(const std::string& givenName,
                                                     std::string_view password,
                                                     std::string_view shownCookie,
                                                     const std::string& address) {
    const std::string name = nameOrNobody(givenName);
    if (const auto wait = throttle.admit(name, address)) {
        refusals.add({0, {}, name, address, "login.refused", "", "too many attempts"});
        return LoginRefused{wait};
    }
    // To find a password right takes most of a second. A session that began although the password
    // has changed meanwhile would outlive the change, which ends sessions: so it is compared again.
    std::optional<NewSession> session;
    while (!session) {
        const std::optional<User> user = userWith(name, password, address);
        if (!user) {
            return LoginRefused{};
        }
        session = begin(*user, address);
    }
    throttle.succeeded(name, address);
    if (!shownCookie.empty()) {
        store.accounts().removeSession(sha256(shownCookie));
    }
    store.audit().append({0, {}, name, address, "login", "", ""});
    return *std::move(session);
}

std::optional<SignedIn> Logins::find(std::string_view cookie) {
    const Sha256 hash = sha256(cookie);
    const std::optional<Session> session = store.accounts().findSession(hash);
    if (!session) {
        return std::nullopt;
    }
    if (hasEnded(*session)) {
        store.accounts().removeSession(hash);
        return std::nullopt;
    }
    if (clock.utc() - session->lastUsed >= kExactnessOfLastUse) {
        touch(store, hash);
    }
    const std::optional<User> user = store.accounts().findUser(session->user);
    if (!user) {
        return std::nullopt;  // removed between the two looks
    }
    return SignedIn{*user, session->crossSiteToken};
}

bool Logins::isOpen(std::string_view cookie) const {
    const std::optional<Session> session = store.accounts().findSession(sha256(cookie));
    return session && !hasEnded(*session);
}

std::variant<NewSession, LoginRefused> Logins::changePassword(const User& user,
                                                              std::string_view present,
                                                              std::string_view next,
                                                              const std::string& address) {
    Passwords::check(next);
    if (const auto wait = throttle.admit(user.name, address)) {
        return LoginRefused{wait};
    }
    const bool right = passwords.matches(present, user.passwordHash);
    User changed = user;
    changed.passwordHash = right ? passwords.hash(next) : "";
    if (!right ||
        !store.accounts().replacePassword(user.id, user.passwordHash, changed.passwordHash)) {
        refusals.add({0, {}, user.name, address, "user.password.refused", user.name, ""});
        return LoginRefused{};
    }
    throttle.succeeded(user.name, address);
    store.audit().append({0, {}, user.name, address, "user.password", user.name, ""});
    return resultOf(begin(changed, address));
}

void Logins::logOut(std::string_view cookie, const Actor& actor) {
    if (store.accounts().removeSession(sha256(cookie))) {
        store.audit().append({0, {}, actor.name, actor.address, "logout", "", ""});
    }
}

std::optional<std::string> Logins::makeFirstLoginCode() {
    if (!store.accounts().listUsers().empty()) {
        return std::nullopt;
    }
    const Secret secret = makeSecret();
    store.accounts().setFirstLoginCode(secret.hash, clock.utc() + kLifeOfFirstCode);
    return secret.text;
}

std::variant<NewSession, LoginRefused> Logins::redeemFirstLoginCode(std::string_view code,
                                                                    const std::string& name,
                                                                    std::string_view password,
                                                                    const std::string& address) {
    checkUserName(name);
    Passwords::check(password);
    // Nobody guesses a code; but hashing a password for everybody who asks is work.
    if (const auto wait = throttle.admit("", address)) {
        return LoginRefused{wait};
    }
    const auto user =
        store.accounts().addFirstUser(sha256(code), clock.utc(), name, passwords.hash(password));
    if (!user) {
        refusals.add({0, {}, "", address, "login.refused", name, "wrong code for the first login"});
        return LoginRefused{};
    }
    throttle.succeeded("", address);
    store.audit().append({0, {}, name, address, "login.first", name, ""});
    return resultOf(begin(*user, address));
}

bool Logins::isFrom(const SignedIn& signedIn, std::string_view crossSiteToken) noexcept {
    return equalInConstantTime(sha256(signedIn.crossSiteToken), sha256(crossSiteToken));
}

void Logins::removeEnded() {
    const UtcTime now = clock.utc();
    store.accounts().removeOldSessions(now - kLongestLife, now - kLongestIdle);
}

bool Logins::hasEnded(const Session& session) const {
    const UtcTime now = clock.utc();
    return now - session.made >= kLongestLife || now - session.lastUsed >= kLongestIdle;
}

std::optional<User> Logins::userWith(const std::string& name, std::string_view password,
                                     const std::string& address) {
    std::optional<User> user = store.accounts().findUser(name);
    const bool right =
        passwords.matches(password, user ? user->passwordHash : passwords.hashOfNobody());
    if (!user || !right) {
        refusals.add(
            {0, {}, name, address, "login.refused", "", user ? "wrong password" : "unknown user"});
        return std::nullopt;
    }
    if (passwords.needsRehash(user->passwordHash)) {
        const std::string former = std::exchange(user->passwordHash, passwords.hash(password));
        store.accounts().rehashPassword(user->id, former, user->passwordHash);
    }
    return user;
}

std::optional<NewSession> Logins::begin(const User& user, const std::string& address) {
    const Secret cookie = makeSecret();
    const std::string crossSiteToken = makeSecret().text;
    const UtcTime now = clock.utc();
    const Session session{cookie.hash, user.id, crossSiteToken, address, now, now};
    if (!store.accounts().addSession(session, user.passwordHash)) {
        return std::nullopt;
    }
    return NewSession{cookie.text, {user, crossSiteToken}};
}

}  // namespace kolvan::server
