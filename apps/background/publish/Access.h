#pragma once

// Who may read and write a published calendar. HTTP Basic: the user name is ignored, the password
// decides. Read: no read password is set, or the read or the write password is given. Write: the
// calendar is not read-only, and either no password is set at all or the write password is given (a
// read password alone closes writing). Passwords are compared in constant time and never logged.

#include "PublishedStore.h"

#include <QByteArray>
#include <QHash>
#include <functional>
#include <optional>

namespace nimbrel::publish {

struct Credentials
{
    bool present = false; // an Authorization header with Basic credentials was sent
    bool malformed = false;
    QString password;

    static Credentials fromHeader(const QByteArray& authorization);
};

struct Privileges
{
    bool read = false;
    bool write = false;
};

// What `credentials` grant on `calendar`; `matched` tells whether the password given is one of the
// calendar's passwords (a wrong password counts towards the back-off, an insufficient one does not).
Privileges privilegesFor(const PublishedCalendar& calendar, const Credentials& credentials,
                         bool* matched = nullptr);

// What anyone may do without a password.
Privileges anonymousPrivileges(const PublishedCalendar& calendar);

// Constant-time comparison of two secrets (their lengths may differ).
bool secretsEqual(const QString& a, const QString& b);

// Failed passwords per client address with exponential back-off: after kFreeFailures failures an
// address must wait 1, 2, 4 … seconds (at most kMaxDelaySeconds) before its next try with a password.
// A correct password clears the address. Bounded in memory: the oldest addresses are forgotten.
class FailedPasswordGuard
{
public:
    static constexpr int kFreeFailures = 5;
    static constexpr double kMaxDelaySeconds = 900;
    static constexpr int kMaxAddresses = 4096;

    using Clock = std::function<double()>; // seconds, monotonic
    explicit FailedPasswordGuard(Clock clock = {});

    // Seconds this address must still wait, or nullopt when it may try now.
    std::optional<int> retryAfter(const QByteArray& address) const;
    void recordFailure(const QByteArray& address);
    void recordSuccess(const QByteArray& address);

private:
    struct Entry
    {
        int failures = 0;
        double blockedUntil = 0;
        double lastSeen = 0;
    };
    double now() const;
    void forgetOldest();

    Clock m_clock;
    QHash<QByteArray, Entry> m_entries;
};

} // namespace nimbrel::publish
