#include "Access.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <openssl/crypto.h>

#include <algorithm>
#include <cmath>

namespace nimbrel::publish {

Credentials Credentials::fromHeader(const QByteArray& authorization)
{
    Credentials result;
    if (authorization.isNull())
        return result;
    result.present = true;
    const QByteArray trimmed = authorization.trimmed();
    const qsizetype space = trimmed.indexOf(' ');
    if (space <= 0 || trimmed.left(space).toLower() != "basic") {
        result.malformed = true;
        return result;
    }
    const auto decoded = QByteArray::fromBase64Encoding(trimmed.mid(space + 1).trimmed(),
                                                        QByteArray::AbortOnBase64DecodingErrors);
    const qsizetype colon = decoded ? decoded.decoded.indexOf(':') : -1;
    if (colon < 0) {
        result.malformed = true;
        return result;
    }
    result.password = QString::fromUtf8(decoded.decoded.mid(colon + 1));
    return result;
}

bool secretsEqual(const QString& a, const QString& b)
{
    // Digests have equal length, so the comparison takes the same time whatever the inputs.
    const QByteArray da = QCryptographicHash::hash(a.toUtf8(), QCryptographicHash::Sha256);
    const QByteArray db = QCryptographicHash::hash(b.toUtf8(), QCryptographicHash::Sha256);
    return CRYPTO_memcmp(da.constData(), db.constData(), size_t(da.size())) == 0;
}

Privileges anonymousPrivileges(const PublishedCalendar& calendar)
{
    Privileges p;
    p.read = calendar.readPassword.isEmpty();
    p.write = !calendar.readOnly && calendar.readPassword.isEmpty() && calendar.writePassword.isEmpty();
    return p;
}

Privileges privilegesFor(const PublishedCalendar& calendar, const Credentials& credentials, bool* matched)
{
    Privileges p = anonymousPrivileges(calendar);
    bool readMatch = false;
    bool writeMatch = false;
    if (credentials.present && !credentials.malformed) {
        // Both comparisons always run, so timing tells nothing about which password was hit.
        readMatch = !calendar.readPassword.isEmpty() && secretsEqual(credentials.password, calendar.readPassword);
        writeMatch = !calendar.writePassword.isEmpty() && secretsEqual(credentials.password, calendar.writePassword);
    }
    p.read = p.read || readMatch || writeMatch;
    p.write = p.write || (!calendar.readOnly && writeMatch);
    if (matched)
        *matched = readMatch || writeMatch;
    return p;
}

FailedPasswordGuard::FailedPasswordGuard(Clock clock)
    : m_clock(std::move(clock))
{
    if (!m_clock) {
        auto timer = std::make_shared<QElapsedTimer>();
        timer->start();
        m_clock = [timer] { return double(timer->nsecsElapsed()) / 1e9; };
    }
}

double FailedPasswordGuard::now() const
{
    return m_clock();
}

std::optional<int> FailedPasswordGuard::retryAfter(const QByteArray& address) const
{
    const auto it = m_entries.constFind(address);
    if (it == m_entries.constEnd())
        return std::nullopt;
    const double wait = it->blockedUntil - now();
    if (wait <= 0)
        return std::nullopt;
    return int(std::ceil(wait));
}

void FailedPasswordGuard::recordFailure(const QByteArray& address)
{
    if (!m_entries.contains(address) && m_entries.size() >= kMaxAddresses)
        forgetOldest();
    Entry& e = m_entries[address];
    const double t = now();
    // A day without failures starts the count afresh.
    if (e.lastSeen > 0 && t - e.lastSeen > 86400)
        e = Entry{};
    e.failures++;
    e.lastSeen = t;
    if (e.failures >= kFreeFailures) {
        const int steps = std::min(e.failures - kFreeFailures, 20);
        e.blockedUntil = t + std::min(kMaxDelaySeconds, std::ldexp(1.0, steps));
    }
}

void FailedPasswordGuard::recordSuccess(const QByteArray& address)
{
    m_entries.remove(address);
}

void FailedPasswordGuard::forgetOldest()
{
    auto oldest = m_entries.begin();
    for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
        if (it->lastSeen < oldest->lastSeen)
            oldest = it;
    }
    if (oldest != m_entries.end())
        m_entries.erase(oldest);
}

} // namespace nimbrel::publish
