#include "platform/NSURLConnectionMonitor.h"

#include "platform/SystemVersion.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <atomic>

namespace nimbrel {

namespace {

std::atomic<int> s_liveMonitors{0};

QPointer<QNetworkAccessManager> s_manager;

// Deleting the manager among the application's children, after the application has begun to go
// away, can leave the network thread's per-request objects behind; delete it while the
// application still works.
void deleteSharedManager()
{
    delete s_manager.data();
}

// One manager for the whole process, owned by the application so it goes away with it.
QNetworkAccessManager* sharedManager()
{
    if (!s_manager) {
        s_manager = new QNetworkAccessManager(QCoreApplication::instance());
        qAddPostRoutine(deleteSharedManager); // runs once, when this application ends
    }
    return s_manager;
}

// The answer is never read: throw each piece away as it arrives so the body never piles up.
void discardBody(QNetworkReply* reply)
{
    QObject::connect(reply, &QIODevice::readyRead, reply, [reply] { reply->skip(reply->bytesAvailable()); });
}

} // namespace

QNetworkReply* NSURLConnectionMonitor::connectionWithRequest(const QNetworkRequest& request)
{
    // The manager needs the application's event loop to make any progress.
    if (!QCoreApplication::instance())
        return nullptr;

    QNetworkRequest followed(request);
    followed.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                          QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply* reply = sharedManager()->get(followed);
    discardBody(reply);

    if (getSystemVersion() > kSystemVersion10_5_2OrLater) {
        connect(reply, &QNetworkReply::finished, reply, &QObject::deleteLater);
        if (reply->isFinished())
            reply->deleteLater();
    } else {
        // Owns itself: released in connectionDidEnd().
        new NSURLConnectionMonitor(reply);
    }
    return reply;
}

int NSURLConnectionMonitor::liveMonitorCount()
{
    return s_liveMonitors.load();
}

NSURLConnectionMonitor::NSURLConnectionMonitor(QNetworkReply* reply) : m_reply(reply)
{
    ++s_liveMonitors;
    connect(reply, &QNetworkReply::finished, this, &NSURLConnectionMonitor::connectionDidEnd);
    connect(reply, &QNetworkReply::errorOccurred, this, &NSURLConnectionMonitor::connectionDidEnd);
    // The manager (and with it the reply) may go away first, when the application ends and no
    // event loop would run a deferred delete any more.
    connect(reply, &QObject::destroyed, this, [this] {
        m_reply = nullptr;
        delete this;
    });
    if (reply->isFinished())
        QMetaObject::invokeMethod(this, &NSURLConnectionMonitor::connectionDidEnd, Qt::QueuedConnection);
}

NSURLConnectionMonitor::~NSURLConnectionMonitor()
{
    --s_liveMonitors;
}

void NSURLConnectionMonitor::connectionDidEnd()
{
    // A failure reports both errorOccurred and finished; release only once.
    if (!m_reply)
        return;
    disconnect(m_reply, nullptr, this, nullptr);
    m_reply->deleteLater();
    m_reply = nullptr;
    deleteLater();
}

} // namespace nimbrel
