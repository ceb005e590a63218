#pragma once

// The background application's remote object: serves com.quorvia.Nimbrel.AppProtocol (through the
// generated AppProtocolAdaptor) at /com/quorvia/Nimbrel/Proxy under the well-known name
// com.quorvia.Nimbrel.Proxy. Every answer comes from NimbrelState; property lists cross the bus through
// WireCodec. Requests that concern the whole application (update checks, shutdown) leave as signals.

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>
#include <optional>

namespace nimbrel {
class SettingsStore;
}

namespace nimbrel::background {

class NimbrelState;

// The lines of the support block: versions (application, Qt, system, protocol), the shared settings
// without any key containing "Password", then the state's own diagnostics.
QStringList techSupportLines(const QString& appVersion, const SettingsStore& shared,
                             const NimbrelState& state);

class BackgroundService : public QObject
{
    Q_OBJECT
public:
    enum class ServeResult
    {
        Serving,   // object registered and name owned
        NameTaken, // another connection owns the name (a second instance)
        Failed,    // no bus, or the bus refused the object or the name
    };

    // `state` and `shared` must outlive the service. `appVersion` is quoted in the support block.
    BackgroundService(NimbrelState& state, SettingsStore& shared, const QString& appVersion,
                      QObject* parent = nullptr);
    ~BackgroundService() override; // stops serving

    // Registers the object, then asks for the name without queueing: a name owned elsewhere is
    // refused at once, and then nothing stays registered.
    ServeResult serve(const QDBusConnection& connection);
    // Releases the name and the object (a new instance may take the name right after).
    void unserve();
    bool isServing() const { return m_connection.has_value(); }

signals:
    // Emitted from within the D-Bus handlers; `shutdownRequested` is queued so that the call's
    // handler has returned before the application begins to stop.
    void updateCheckRequested();
    void updateScheduleChanged();
    void shutdownRequested();

    // ---- D-Bus handlers (called by the adaptor; not for direct use) --------------------------------
public slots:
    int version();
    QByteArray calendarsPublishableViaBonjour();
    QByteArray sourceListOfBonjourCalendars();
    QByteArray calendarsPublishableToGoogle();
    QByteArray sourceListOfGoogleCalendars();
    QVariantMap bonjourPublisherInfo();
    bool googleSyncInProgress();
    void techSupportInfo();
    void publishCalendarViaBonjour(const QVariantMap& calendar);
    void publishCalendarToGoogle(const QVariantMap& calendar);
    void subscribeTo(const QVariantMap& calendar);
    void publishOptions(const QVariantMap& calendar);
    void subscribeOptions(const QVariantMap& calendar);
    void bonjourIPServiceOptions(const QVariantMap& server);
    void disconnectBonjourIPService(const QVariantMap& server);
    void googleServiceOptions(const QVariantMap& settings);
    void disconnectGoogleService(const QVariantMap& settings);
    void setBonjourPublisherInfo(const QVariantMap& info);
    void log(const QString& text);
    void checkForUpdate();
    void autoCheckForUpdatesChanged();
    void syncHistoryWillBeReset();
    void syncHistoryWasReset();
    void resetDatabase();
    void shutdown();

private:
    NimbrelState& m_state;
    SettingsStore& m_shared;
    QString m_appVersion;
    std::optional<QDBusConnection> m_connection;
};

} // namespace nimbrel::background
