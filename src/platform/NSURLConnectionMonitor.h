#pragma once

#include <QNetworkRequest>
#include <QObject>

class QNetworkReply;

namespace nimbrel {

// Keeps a fire-and-forget request alive until it ends. On systems where the network layer keeps its
// own connections alive (10.5.2 or later) the request runs on its own; on older ones a monitor holds
// the connection and itself until the request finishes or fails. The answer is never read.
class NSURLConnectionMonitor : public QObject
{
    Q_OBJECT
public:
    // Starts the request; redirects are followed. The returned reply deletes itself when it ends.
    static QNetworkReply* connectionWithRequest(const QNetworkRequest& request);

    // Monitors alive right now (for tests of the older path).
    static int liveMonitorCount();

private:
    explicit NSURLConnectionMonitor(QNetworkReply* reply);
    ~NSURLConnectionMonitor() override;
    void connectionDidEnd();

    QNetworkReply* m_reply;
};

} // namespace nimbrel
