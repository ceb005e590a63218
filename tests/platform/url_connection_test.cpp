#include "platform/NSURLConnectionMonitor.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/SystemVersion.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

// A minimal HTTP server on 127.0.0.1 that records request lines. "/redirect" answers 302 to
// "/target", "/big" answers a large body, "/hold" is answered only when release() is called, any
// other path answers 200.
class TestHttpServer : public QObject
{
public:
    TestHttpServer()
    {
        connect(&m_server, &QTcpServer::newConnection, this, &TestHttpServer::accept);
        m_server.listen(QHostAddress::LocalHost, 0);
    }

    bool isListening() const { return m_server.isListening(); }
    QString url(const QString& path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(m_server.serverPort()).arg(path);
    }
    QStringList requestLines;
    static constexpr int kBigBodySize = 4 * 1024 * 1024;

    void release()
    {
        for (QTcpSocket* socket : std::as_const(m_held)) {
            if (socket)
                respond(socket, "200 OK", QByteArray("late"));
        }
        m_held.clear();
    }

private:
    void accept()
    {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readRequest(socket); });
        }
    }

    void readRequest(QTcpSocket* socket)
    {
        QByteArray& buffer = m_buffers[socket];
        buffer += socket->readAll();
        const qsizetype end = buffer.indexOf("\r\n\r\n");
        if (end < 0)
            return;
        const QByteArray requestLine = buffer.left(buffer.indexOf("\r\n"));
        buffer.remove(0, end + 4);
        requestLines.append(QString::fromLatin1(requestLine));
        const QByteArray path = requestLine.split(' ').value(1);

        if (path == "/redirect") {
            respond(socket, "302 Found", QByteArray(),
                    "Location: " + url(QStringLiteral("/target")).toLatin1());
        } else if (path == "/big") {
            respond(socket, "200 OK", QByteArray(kBigBodySize, 'x'));
        } else if (path == "/hold") {
            m_held.append(socket);
        } else {
            respond(socket, "200 OK", QByteArray("ok"));
        }
    }

    static void respond(QTcpSocket* socket, const QByteArray& status, const QByteArray& body,
                        const QByteArray& extraHeader = QByteArray())
    {
        QByteArray response = "HTTP/1.1 " + status +
                              "\r\nContent-Length: " + QByteArray::number(body.size()) +
                              "\r\nConnection: close\r\n";
        if (!extraHeader.isEmpty())
            response += extraHeader + "\r\n";
        response += "\r\n" + body;
        socket->write(response);
        socket->disconnectFromHost();
    }

    QTcpServer m_server;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    QList<QPointer<QTcpSocket>> m_held;
};

// Runs the event loop until the condition holds or five seconds have passed.
bool waitUntil(const std::function<bool()>& condition)
{
    if (condition())
        return true;
    QEventLoop loop;
    QTimer safety;
    safety.setSingleShot(true);
    QObject::connect(&safety, &QTimer::timeout, &loop, &QEventLoop::quit);
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (condition())
            loop.quit();
    });
    safety.start(5000);
    poll.start(5);
    loop.exec();
    return condition();
}

class UrlConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.isListening()); }
    void TearDown() override
    {
        setSystemVersionSource(nullptr);
        // Nothing may be left in flight for the next test (or at exit): every reply deletes itself.
        EXPECT_TRUE(waitUntil([] {
            return NSURLConnectionMonitor::liveMonitorCount() == 0 &&
                   qApp->findChildren<QNetworkReply*>().isEmpty();
        }));
    }

    TestHttpServer server;
};

} // namespace

TEST_F(UrlConnectionTest, GetArrivesWithThePath)
{
    PrefPaneUtilities::getNothingFromURL(server.url(QStringLiteral("/ping?from=pane")));
    ASSERT_TRUE(waitUntil([&] { return !server.requestLines.isEmpty(); }));
    EXPECT_EQ(server.requestLines, QStringList{QStringLiteral("GET /ping?from=pane HTTP/1.1")});
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 0);
}

TEST_F(UrlConnectionTest, RedirectIsFollowed)
{
    PrefPaneUtilities::getNothingFromURL(server.url(QStringLiteral("/redirect")));
    ASSERT_TRUE(waitUntil([&] { return server.requestLines.size() >= 2; }));
    EXPECT_EQ(server.requestLines, (QStringList{QStringLiteral("GET /redirect HTTP/1.1"),
                                                QStringLiteral("GET /target HTTP/1.1")}));
}

TEST_F(UrlConnectionTest, ReplyDiscardsBodyAndDeletesItself)
{
    QPointer<QNetworkReply> reply = NSURLConnectionMonitor::connectionWithRequest(
        QNetworkRequest(QUrl(server.url(QStringLiteral("/big")))));
    ASSERT_TRUE(reply);
    qint64 leftAtEnd = -1;
    QObject::connect(reply, &QNetworkReply::finished, [&] { leftAtEnd = reply->bytesAvailable(); });
    ASSERT_TRUE(waitUntil([&] { return reply.isNull(); }));
    EXPECT_EQ(leftAtEnd, 0);
}

TEST_F(UrlConnectionTest, InvalidAddressesDoNothing)
{
    PrefPaneUtilities::getNothingFromURL(QString());
    PrefPaneUtilities::getNothingFromURL(QStringLiteral("http://[::1"));
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 0);
}

TEST_F(UrlConnectionTest, OlderSystemHoldsMonitorWhileInFlight)
{
    setSystemVersionSource(fixedSystemVersion(0x100501));
    PrefPaneUtilities::getNothingFromURL(server.url(QStringLiteral("/hold")));
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 1);
    ASSERT_TRUE(waitUntil([&] { return !server.requestLines.isEmpty(); }));
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 1);

    server.release();
    EXPECT_TRUE(waitUntil([] { return NSURLConnectionMonitor::liveMonitorCount() == 0; }));
}

TEST_F(UrlConnectionTest, UnreachablePortReleasesMonitor)
{
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const quint16 port = closed.serverPort();
    closed.close();

    setSystemVersionSource(fixedSystemVersion(0x100501));
    QPointer<QNetworkReply> reply = NSURLConnectionMonitor::connectionWithRequest(
        QNetworkRequest(QUrl(QStringLiteral("http://127.0.0.1:%1/none").arg(port))));
    ASSERT_TRUE(reply);
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 1);
    EXPECT_TRUE(waitUntil([&] { return NSURLConnectionMonitor::liveMonitorCount() == 0 && reply.isNull(); }));
}

TEST_F(UrlConnectionTest, MonitorGoesWithTheManagerAndAFreshManagerFollows)
{
    setSystemVersionSource(fixedSystemVersion(0x100501));
    PrefPaneUtilities::getNothingFromURL(server.url(QStringLiteral("/hold")));
    ASSERT_TRUE(waitUntil([&] { return !server.requestLines.isEmpty(); }));
    ASSERT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 1);

    // The shared manager belongs to the application; when it goes, in-flight monitors go at once.
    const auto managers = qApp->findChildren<QNetworkAccessManager*>(Qt::FindDirectChildrenOnly);
    ASSERT_EQ(managers.size(), 1);
    delete managers.first();
    EXPECT_EQ(NSURLConnectionMonitor::liveMonitorCount(), 0);

    PrefPaneUtilities::getNothingFromURL(server.url(QStringLiteral("/again")));
    EXPECT_TRUE(
        waitUntil([&] { return server.requestLines.contains(QStringLiteral("GET /again HTTP/1.1")); }));
}
