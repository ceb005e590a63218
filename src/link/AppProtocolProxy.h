#pragma once

// The client end of the background application's remote object on the session bus. Calls are built
// as messages, never through QDBusInterface (which introspects, blocking), and never start a stopped
// background application (auto-start off). One-way operations return at once; synchronous ones block
// with the proxy's reply time-out.

#include "protocol/AppProtocol.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <functional>
#include <optional>

namespace nimbrel {

class AppProtocolProxy
{
public:
    explicit AppProtocolProxy(const QDBusConnection& connection = QDBusConnection::sessionBus());

    // Reply time-out of synchronous calls in milliseconds; -1 is the bus default (25 s).
    int timeout() const { return m_timeout; }
    void setTimeout(int milliseconds) { m_timeout = milliseconds; }

    // Generic calls. send() queues a one-way call; call() waits for the reply and returns its first
    // argument unwrapped (fromWire), or nullopt with `error` set when the call failed.
    bool send(const QString& method, const QVariantList& arguments = {}) const;
    std::optional<QVariant> call(const QString& method, const QVariantList& arguments = {},
                                 QDBusError* error = nullptr) const;

    // Called on the sending thread just before each call leaves, with its method name; tests watch
    // the order of what the link does around it. An empty function removes it.
    static void setOutgoingObserver(std::function<void(const QString& method)> observer);

    // Synchronous operations. After a failure (logged) they yield nullopt, false or 0: a list that
    // could not be fetched is not the same as an empty one.
    std::optional<qint32> version(QDBusError* error = nullptr) const;
    std::optional<QVariantList> calendarsPublishableViaBonjour() const;
    std::optional<QVariantList> sourceListOfBonjourCalendars() const;
    std::optional<QVariantList> calendarsPublishableToGoogle() const;
    std::optional<QVariantList> sourceListOfGoogleCalendars() const;
    QVariantMap bonjourPublisherInfo(bool* ok = nullptr) const;
    bool googleSyncInProgress() const;
    void techSupportInfo() const;

    // One-way operations.
    void publishCalendarViaBonjour(const QVariantMap& calendar) const;
    void publishCalendarToGoogle(const QVariantMap& calendar) const;
    void subscribeTo(const QVariantMap& calendar) const;
    void publishOptions(const QVariantMap& calendar) const;
    void subscribeOptions(const QVariantMap& calendar) const;
    void bonjourIPServiceOptions(const QVariantMap& server) const;
    void disconnectBonjourIPService(const QVariantMap& server) const;
    void googleServiceOptions(const QVariantMap& settings) const;
    void disconnectGoogleService(const QVariantMap& settings) const;
    void setBonjourPublisherInfo(const QVariantMap& info) const;
    void log(const QString& text) const;
    void checkForUpdate() const;
    void autoCheckForUpdatesChanged() const;
    void syncHistoryWillBeReset() const;
    void syncHistoryWasReset() const;
    void resetDatabase() const;
    void shutdown() const;

private:
    std::optional<QVariantList> listCall(const QString& method) const;

    QDBusConnection m_connection;
    int m_timeout = -1;
};

} // namespace nimbrel
