#pragma once

// The stored sources of calendars (remote servers and the one Google account), the subscriptions to
// their calendars, and the publisher's own settings (Bonjour name and port). A source's and a
// subscription's settings are kept whole, as the property-list dictionary the panel sent.

#include <QList>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <optional>

namespace nimbrel::background {

class StateDatabase;

inline const QString kServerSource = QStringLiteral("server");
inline const QString kGoogleSource = QStringLiteral("google");

// Orders dictionaries by "title", ignoring case.
bool byTitle(const QVariant& a, const QVariant& b);

struct SourceRecord
{
    QString uid;
    QVariantMap settings;
};

class SourceRecords
{
public:
    explicit SourceRecords(StateDatabase& db) : m_db(db) {}

    QList<SourceRecord> sources(const QString& kind) const;
    std::optional<SourceRecord> googleAccount() const;
    // "server", "google", or empty when no source has the uid.
    QString kindOf(const QString& uid) const;
    std::optional<QVariantMap> settingsOf(const QString& uid) const;
    // Inserts or replaces a source's settings; returns what went wrong (empty on success).
    QString store(const QString& uid, const QString& kind, const QVariantMap& settings);
    // Removes a source and its subscriptions; returns what went wrong (empty on success).
    QString remove(const QString& uid);

    // A source's subscriptions as calendar dictionaries ("uid", "title", "subscribedTo", …), by title.
    QVariantList subscriptionsOf(const QString& sourceUid, bool* anySubscribed) const;
    std::optional<QVariantMap> subscription(const QString& uid) const; // its stored record
    bool setSubscribed(const QString& uid, bool subscribed);
    QString setSubscriptionRecord(const QString& uid, const QVariantMap& record);

    // "bonjourName" (default: the host name) and "portNumber" when it is fixed (not 0).
    QVariantMap publisherInfo() const;
    bool setPublisherInfo(const QString& name, qint64 port);

private:
    StateDatabase& m_db;
};

} // namespace nimbrel::background
