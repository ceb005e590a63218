#pragma once

// Publishing in the background application: serves the published calendars with the CalDAV server on
// the fixed port ("portNumber") or the automatic one (the last port used when it is free, else any
// free port, remembered), and announces them under the "bonjourName". "Nimbrel Bonjour Name Published"
// is posted when Avahi confirms the name (or reports that it cannot), and bonjourPublisherInfo then
// answers the name really published (Avahi's alternative after a collision).

#include "CaldavPublisher.h"

#include <QObject>
#include <functional>

namespace nimbrel::background {

class NimbrelState;

class Publishing : public QObject
{
    Q_OBJECT
public:
    using Poster = std::function<void(const QString& notificationName)>;

    // `dataFolder` keeps the certificate, the last automatic port and this computer's instance id.
    Publishing(NimbrelState& state, const QString& dataFolder, Poster post, QObject* parent = nullptr);
    ~Publishing() override;

    void start();
    void stop();

    quint16 port() const { return m_publisher.port(); }
    QString fingerprint() const { return m_publisher.fingerprint(); }
    // The id= of this computer's announcement (so that a browser can skip its own).
    QString instanceId() const { return m_instanceId; }

private:
    void apply(bool restartServer);
    void answered(const QString& publishedName);

    NimbrelState& m_state;
    QString m_dataFolder;
    Poster m_post;
    publish::CaldavPublisher m_publisher;
    QString m_instanceId;
    qint64 m_servedPort = -1; // the "portNumber" setting the server runs with
    bool m_answerOwed = false; // a change of name or port waits for Avahi's answer
};

} // namespace nimbrel::background
