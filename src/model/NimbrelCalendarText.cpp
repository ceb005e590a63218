// The one-line summaries the tables show for a row: who may read and write a published calendar, what
// a subscription grants and leaves out, whether a source is reachable and when it last synced.

#include "model/NimbrelCalendar.h"
#include "platform/Strings.h"

#include <QLocale>
#include <QMetaType>

namespace nimbrel {

namespace {

std::function<QDateTime()>& currentTimeSource()
{
    static std::function<QDateTime()> source;
    return source;
}

QDateTime now()
{
    if (const auto& source = currentTimeSource())
        return source();
    return QDateTime::currentDateTime();
}

bool hasText(const CalendarRecord& dictionary, const QString& key)
{
    return !dictionary.value(key).toString().isEmpty();
}

// Everything up to this many milliseconds after the Unix epoch stands for "never synced".
constexpr qint64 kNoSyncBeforeMSecs = 86400LL * 1000;

} // namespace

void NimbrelCalendar::setCurrentTimeSource(std::function<QDateTime()> source)
{
    currentTimeSource() = std::move(source);
}

std::optional<QDateTime> NimbrelCalendar::usableSyncTime() const
{
    const QVariant value = m_dict.value(QStringLiteral("syncTime"));
    if (value.typeId() != QMetaType::QDateTime)
        return std::nullopt;
    const QDateTime time = value.toDateTime();
    if (!time.isValid() || time.toMSecsSinceEpoch() <= kNoSyncBeforeMSecs)
        return std::nullopt;
    return time;
}

QString NimbrelCalendar::publishOptions() const
{
    if (!boolValue(m_dict, QStringLiteral("publishedToBonjour")))
        return QStringLiteral("");
    const bool readPassword = hasText(m_dict, QStringLiteral("readPassword"));
    if (boolValue(m_dict, QStringLiteral("readOnly"))) {
        // Nobody writes a read-only calendar, so a write password does not matter.
        return localizedString(readPassword ? QStringLiteral("read password")
                                            : QStringLiteral("everyone can read"));
    }
    const bool writePassword = hasText(m_dict, QStringLiteral("writePassword"));
    if (readPassword) {
        return localizedString(writePassword ? QStringLiteral("read password; write password")
                                             : QStringLiteral("read password"));
    }
    return localizedString(writePassword ? QStringLiteral("everyone can read; write password")
                                         : QStringLiteral("everyone can read & write"));
}

QString NimbrelCalendar::subscribeOptions() const
{
    if (!isLeaf()) {
        if (boolValue(m_dict, QStringLiteral("version")))
            return localizedString(QStringLiteral("incompatible version"));
        const std::optional<QDateTime> synced = usableSyncTime();
        if (isOffline())
            return synced ? lastSyncStringForDate(*synced, false)
                          : localizedString(QStringLiteral("unable to connect"));
        return localizedString(synced ? QStringLiteral("online") : QStringLiteral("connecting"));
    }

    // The four spaces indent a calendar's summary under its source in the outline.
    QString text = QStringLiteral("    ");
    if (!boolValue(m_dict, QStringLiteral("subscribedTo")))
        return text;
    if (boolValue(m_dict, QStringLiteral("readProtected")))
        text += localizedString(QStringLiteral("password required"));
    else if (boolValue(m_dict, QStringLiteral("readOnly")))
        text += localizedString(QStringLiteral("read"));
    else
        text += localizedString(QStringLiteral("read & write"));
    if (boolValue(m_dict, QStringLiteral("filterReminders")))
        text += localizedString(QStringLiteral(", no reminders"));
    if (boolValue(m_dict, QStringLiteral("filterToDos")))
        text += localizedString(QStringLiteral(", no to dos"));
    if (boolValue(m_dict, QStringLiteral("filterAttachments")))
        text += localizedString(QStringLiteral(", no attachments"));
    return text;
}

// Days are counted on the local calendar, so "yesterday" can be a few minutes ago; anything but today
// and yesterday (a clock running ahead included) shows the date as well.
QString NimbrelCalendar::lastSyncStringForDate(const QDateTime& date, bool online)
{
    const QDateTime local = date.toLocalTime();
    const qint64 difference = local.date().toJulianDay() - now().toLocalTime().date().toJulianDay();
    const QLocale locale;
    QString format;
    QString when;
    if (difference == 0 || difference == -1) {
        format = localizedString(difference == 0 ? QStringLiteral("synced today %@")
                                                 : QStringLiteral("synced yesterday %@"));
        when = locale.toString(local.time(), QLocale::ShortFormat);
    } else {
        format = localizedString(QStringLiteral("synced %@"));
        when = locale.toString(local, QLocale::ShortFormat);
    }
    const QString synced = fillPlaceholders(format, {when});
    if (online)
        return synced;
    return fillPlaceholders(QStringLiteral("%@ - %@"), {localizedString(QStringLiteral("offline")), synced});
}

QString NimbrelCalendar::lastSyncAsString() const
{
    const QVariant error = m_dict.value(QStringLiteral("syncError"));
    if (error.isValid())
        return localizedFormat(QStringLiteral("error - %@"), {error.toString()});
    const std::optional<QDateTime> synced = usableSyncTime();
    // Before the first sync there is nothing to tell, even while one is running.
    if (!synced)
        return QString();
    if (isOffline())
        return lastSyncStringForDate(*synced, false);
    if (boolValue(m_dict, QStringLiteral("running")))
        return localizedString(QStringLiteral("synchronizing..."));
    return lastSyncStringForDate(*synced, true);
}

} // namespace nimbrel
