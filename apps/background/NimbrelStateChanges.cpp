// The changes the panel asks for: each checks its input, writes inside one transaction and posts its
// notification after the commit (also when the input was bad, so that the panel stops waiting).

#include "NimbrelStatePrivate.h"
#include "RequestInput.h"

#include <QUrl>
#include <QUuid>

namespace nimbrel::background {

namespace {

constexpr int kMaxBonjourNameBytes = 63;

// Keys that we compute when answering (or that name the record's place); they are never stored.
QVariantMap withoutComputedKeys(QVariantMap map)
{
    for (const char* key :
         {"uid", "source", "calendars", "offline", "syncTime", "syncError", "running", "version",
          "hasSubscriptions", "hasPublishing", "newGoogleService", "subscribedTo", "bonjour"})
        map.remove(QLatin1String(key));
    return map;
}

QString newUid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

} // namespace

void NimbrelState::publishCalendarViaBonjour(const QVariantMap& calendar)
{
    d->change("publishCalendarViaBonjour", kPublishableChange, [&]() -> QString {
        RequestInput in(calendar);
        const QString uid = in.uid();
        const bool published = in.boolean("publishedToBonjour");
        if (!in.ok())
            return in.problem();
        if (!d->settings.contains(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (!d->settings.setPublishedToBonjour(uid, published))
            return d->db.writeProblem();
        return {};
    });
}

void NimbrelState::publishCalendarToGoogle(const QVariantMap& calendar)
{
    d->change("publishCalendarToGoogle", kGoogleChange, [&]() -> QString {
        RequestInput in(calendar);
        const QString uid = in.uid();
        const bool published = in.boolean("publishedToGoogle");
        if (!in.ok())
            return in.problem();
        if (!d->settings.contains(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (published && !d->sources.googleAccount())
            return QStringLiteral("there is no Google account to publish to");
        if (!d->settings.setPublishedToGoogle(uid, published))
            return d->db.writeProblem();
        return {};
    });
}

void NimbrelState::publishOptions(const QVariantMap& calendar)
{
    d->change("publishOptions", kPublishableChange, [&]() -> QString {
        RequestInput in(calendar);
        const QString uid = in.uid();
        const QString readPassword = in.string("readPassword");
        const QString writePassword = in.string("writePassword");
        const bool readOnly = in.boolean("readOnly");
        if (!in.ok())
            return in.problem();
        if (!d->settings.contains(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (!d->settings.setPublishOptions(uid, readPassword, writePassword, readOnly))
            return d->db.writeProblem();
        return {};
    });
}

void NimbrelState::subscribeTo(const QVariantMap& calendar)
{
    d->change("subscribeTo", kBonjourChange, [&]() -> QString {
        RequestInput in(calendar);
        const QString uid = in.uid();
        const bool subscribed = in.boolean("subscribedTo");
        if (!in.ok())
            return in.problem();
        if (!d->sources.subscription(uid))
            return QStringLiteral("no subscription has the uid %1").arg(uid);
        if (!d->sources.setSubscribed(uid, subscribed))
            return d->db.writeProblem();
        return {};
    });
}

void NimbrelState::subscribeOptions(const QVariantMap& calendar)
{
    d->change("subscribeOptions", kBonjourChange, [&]() -> QString {
        RequestInput in(calendar);
        const QString uid = in.uid();
        in.string("subscribePassword");
        in.string("title");
        for (const char* flag : {"readOnly", "readProtected", "readableByAnyone", "writableByAnyone",
                                 "filterReminders", "filterToDos", "filterAttachments"})
            in.boolean(flag);
        if (!in.ok())
            return in.problem();
        const std::optional<QVariantMap> previous = d->sources.subscription(uid);
        if (!previous)
            return QStringLiteral("no subscription has the uid %1").arg(uid);
        // The record is replaced as a whole: a password left out is a password forgotten.
        QVariantMap record = withoutComputedKeys(calendar);
        if (!record.contains(QStringLiteral("title")) && previous->contains(QStringLiteral("title")))
            record.insert(QStringLiteral("title"), previous->value(QStringLiteral("title")));
        return d->sources.setSubscriptionRecord(uid, record);
    });
}

void NimbrelState::bonjourIPServiceOptions(const QVariantMap& server)
{
    d->change("bonjourIPServiceOptions", kBonjourChange, [&]() -> QString {
        RequestInput in(server);
        const QString uid = in.has("uid") ? in.string("uid") : QString();
        in.string("title");
        in.string("remoteURL");
        in.integer("syncInterval");
        in.boolean("remoteSSL");
        if (!in.ok())
            return in.problem();
        QString sourceUid = newUid();
        QVariantMap record;
        if (!uid.isEmpty()) {
            const QString kind = d->sources.kindOf(uid);
            if (kind == kGoogleSource)
                return QStringLiteral("the uid %1 is the Google account's, not a server's").arg(uid);
            if (kind == kServerSource) {
                sourceUid = uid;
                record = d->sources.settingsOf(uid).value_or(QVariantMap());
            }
        }
        const QVariantMap incoming = withoutComputedKeys(server);
        for (auto it = incoming.cbegin(); it != incoming.cend(); ++it)
            record.insert(it.key(), it.value());
        const QString url = record.value(QStringLiteral("remoteURL")).toString().trimmed();
        if (url.isEmpty())
            return QStringLiteral("\"remoteURL\" is missing or empty");
        if (record.value(QStringLiteral("title")).toString().trimmed().isEmpty()) {
            const QString host = QUrl(url).host();
            record.insert(QStringLiteral("title"), host.isEmpty() ? url : host);
        }
        return d->sources.store(sourceUid, kServerSource, record);
    });
}

void NimbrelState::disconnectBonjourIPService(const QVariantMap& server)
{
    d->change("disconnectBonjourIPService", kBonjourChange, [&]() -> QString {
        RequestInput in(server);
        const QString uid = in.uid();
        if (!in.ok())
            return in.problem();
        if (d->sources.kindOf(uid) != kServerSource)
            return QStringLiteral("no remote server has the uid %1").arg(uid);
        return d->sources.remove(uid);
    });
}

void NimbrelState::googleServiceOptions(const QVariantMap& settings)
{
    d->change("googleServiceOptions", kGoogleChange, [&]() -> QString {
        RequestInput in(settings);
        in.string("remoteLogin");
        in.string("title");
        in.integer("syncInterval");
        in.boolean("remoteSSL");
        in.dictionary("syncOptions");
        if (!in.ok())
            return in.problem();
        const auto account = d->sources.googleAccount();
        // One account: its uid stays whatever uid the settings carry.
        const QString uid = account ? account->uid : newUid();
        QVariantMap record = account ? account->settings : QVariantMap();
        const QVariantMap incoming = withoutComputedKeys(settings);
        for (auto it = incoming.cbegin(); it != incoming.cend(); ++it)
            record.insert(it.key(), it.value());
        const QString login = record.value(QStringLiteral("remoteLogin")).toString().trimmed();
        if (login.isEmpty())
            return QStringLiteral("\"remoteLogin\" is missing or empty");
        if (record.value(QStringLiteral("title")).toString().trimmed().isEmpty())
            record.insert(QStringLiteral("title"), login);
        return d->sources.store(uid, kGoogleSource, record);
    });
}

void NimbrelState::disconnectGoogleService(const QVariantMap& settings)
{
    d->change("disconnectGoogleService", kGoogleChange, [&]() -> QString {
        RequestInput in(settings);
        const QString uid = in.has("uid") ? in.string("uid") : QString();
        if (!in.ok())
            return in.problem();
        const auto account = d->sources.googleAccount();
        if (!account)
            return QStringLiteral("there is no Google account");
        if (!uid.isEmpty() && uid != account->uid)
            return QStringLiteral("the uid %1 is not the Google account's").arg(uid);
        const QString problem = d->sources.remove(account->uid);
        if (!problem.isEmpty())
            return problem;
        if (!d->settings.unpublishAllFromGoogle())
            return d->db.writeProblem();
        return {};
    });
}

void NimbrelState::setBonjourPublisherInfo(const QVariantMap& info)
{
    // With a publisher running, "Name Published" waits for Avahi's answer to the new name; bad input
    // is answered at once.
    const bool deferred = bool(d->publisherInfoChanged);
    const bool made = d->change("setBonjourPublisherInfo", deferred ? QString() : kNamePublished, [&]() -> QString {
        RequestInput in(info);
        if (!in.has("bonjourName"))
            return QStringLiteral("\"bonjourName\" is missing");
        const QString name = in.string("bonjourName");
        const qint64 port = in.integer("portNumber");
        if (!in.ok())
            return in.problem();
        if (name.trimmed().isEmpty())
            return QStringLiteral("the Bonjour name is empty");
        if (name.toUtf8().size() > kMaxBonjourNameBytes)
            return QStringLiteral("the Bonjour name is longer than %1 bytes").arg(kMaxBonjourNameBytes);
        if (port < 0 || port > 65535)
            return QStringLiteral("the port %1 is not a port: use 1-65535, or 0 for an automatic port")
                .arg(port);
        if (!d->sources.setPublisherInfo(name, port))
            return d->db.writeProblem();
        return {};
    });
    if (deferred && made)
        d->publisherInfoChanged();
    else if (deferred)
        d->notify(kNamePublished);
}

} // namespace nimbrel::background
