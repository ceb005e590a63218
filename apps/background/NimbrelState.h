#pragma once

// What the control panel asks of the background application and what it changes, over the parts that
// keep it: the local calendars (calendars/), the per-calendar publishing settings, the sources and
// subscriptions, the publisher settings and the sync history (state/, in Nimbrel.nsql). Each answer is
// a property-list value in the shape the panel reads (calendar dictionaries with "uid", "title",
// "order", "publishedToBonjour", …; sources with "source" true and "calendars").
//
// Every change is written to disk before its notification is posted through the poster.

#include "state/DataFolder.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>
#include <functional>
#include <memory>

namespace nimbrel::publish {
class PublishedStore;
}

namespace nimbrel::background {

class CalendarSettings;
class CalendarStore;

class NimbrelState : public QObject
{
    Q_OBJECT
public:
    using Poster = std::function<void(const QString& notificationName)>;

    // Nothing is opened until open().
    NimbrelState(const QString& databasePath, const QString& calendarsFolder, const QString& backupFolder,
                 Poster post, QObject* parent = nullptr);
    ~NimbrelState() override;

    // Opens or creates the database (schema versioned; a file that cannot be opened or is not ours
    // is moved aside as "<path>.corrupt", logged, and a fresh database made), scans the calendar
    // folders (creating "Home" and "Work" when there are none at all) and starts watching them.
    // False, with lastError(), only when no usable database could be made.
    bool open();
    void close(); // stops watching, closes the database
    bool isOpen() const;
    QString lastError() const;

    // ---- Answers ---------------------------------------------------------------------------
    QVariantList calendarsPublishableViaBonjour() const;
    QVariantList sourceListOfBonjourCalendars() const;
    QVariantList calendarsPublishableToGoogle() const;
    QVariantList sourceListOfGoogleCalendars() const;
    QVariantMap bonjourPublisherInfo() const; // "bonjourName" (default: host name), "portNumber" when fixed
    bool googleSyncInProgress() const;

    // ---- Changes (each posts its notification after the change is on disk) ----------------
    void publishCalendarViaBonjour(const QVariantMap& calendar); // "Nimbrel Bonjour Publishable Change"
    void publishCalendarToGoogle(const QVariantMap& calendar);   // "Nimbrel Google Change"
    void subscribeTo(const QVariantMap& calendar);               // "Nimbrel Bonjour Change"
    void publishOptions(const QVariantMap& calendar);            // "Nimbrel Bonjour Publishable Change"
    void subscribeOptions(const QVariantMap& calendar);          // "Nimbrel Bonjour Change"
    void bonjourIPServiceOptions(const QVariantMap& server);     // "Nimbrel Bonjour Change"
    void disconnectBonjourIPService(const QVariantMap& server);  // "Nimbrel Bonjour Change"
    void googleServiceOptions(const QVariantMap& settings);      // "Nimbrel Google Change"
    void disconnectGoogleService(const QVariantMap& settings);   // "Nimbrel Google Change"
    void setBonjourPublisherInfo(const QVariantMap& info);       // "Nimbrel Bonjour Name Published"

    // Backs every local calendar up as one .ics file in the backup folder, then empties the database
    // to a fresh state; posts "Nimbrel Reset". False (and nothing emptied) when the backup failed.
    bool resetDatabase();

    // Around an external reset of the sync history: pause closes the database so that the reset tool
    // may write it; resume reopens it and posts "Nimbrel Calendars Changed".
    void pauseForSyncHistoryReset();
    bool resumeAfterSyncHistoryReset();

    // ---- Publishing on the network ---------------------------------------------------------
    // The published calendars for the CalDAV server (the object lives as long as this state).
    publish::PublishedStore* publishedStore() const;
    // "bonjourName" and "portNumber" as the user set them (bonjourPublisherInfo answers the name
    // really published instead, once there is one).
    QVariantMap storedPublisherInfo() const;
    // The publisher's hook: called after a change of name or port was stored; the publisher posts
    // "Nimbrel Bonjour Name Published" when Avahi answers. Without a hook it is posted at once.
    void setPublisherInfoChanged(std::function<void()> changed);
    void setPublishedName(const QString& name);

    // Lines for the support log: counts, settings without passwords, schema version, paths.
    QStringList diagnostics() const;

    // For the services that serve the calendars on the network: the local calendars (their items,
    // ETags, sync tokens, writes) and what the user chose for each (published, passwords, read-only;
    // read on every request, so that a change takes effect on the next one).
    CalendarStore& calendarStore();
    const CalendarSettings& calendarSettings() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace nimbrel::background
