#include "platform/NSURLConnectionMonitor.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/SystemVersion.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
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
using Monitor = NSURLConnectionMonitor;

namespace {

// Serves HTTP on 127.0.0.1 and records the request lines: "/redirect" answers 302 to "/target",
// "/hold" is answered only on release(), any other path answers 200 with a 4 MiB body.
class UrlConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QObject::connect(&server, &QTcpServer::newConnection, [this] {
            while (QTcpSocket* socket = server.nextPendingConnection())
                QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] { answer(socket); });
        });
        ASSERT_TRUE(server.listen(QHostAddress::LocalHost, 0));
    }
    void TearDown() override
    {
        setSystemVersionSource(nullptr);
        // Nothing may be left in flight for the next test (or at exit): every reply deletes itself.
        EXPECT_TRUE(test::waitUntil([] {
            return Monitor::liveMonitorCount() == 0 && qApp->findChildren<QNetworkReply*>().isEmpty();
        }));
    }
    QString url(const char* path) const
    {
        return QStringLiteral("http://127.0.0.1:%1").arg(server.serverPort()) + QLatin1String(path);
    }
    bool requested(const char* line)
    {
        return test::waitUntil([&] { return requestLines.contains(QLatin1String(line)); });
    }
    void answer(QTcpSocket* socket)
    {
        if (!socket->peek(socket->bytesAvailable()).contains("\r\n\r\n"))
            return;
        const QByteArray line = socket->readAll().split('\r').value(0);
        requestLines << QString::fromLatin1(line);
        const QByteArray path = line.split(' ').value(1);
        if (path == "/hold")
            held << socket;
        else
            respond(socket, path == "/redirect");
    }
    void respond(QTcpSocket* socket, bool redirect = false)
    {
        const QByteArray body = redirect ? QByteArray() : QByteArray(4 << 20, 'x');
        socket->write(
            (redirect ? "HTTP/1.1 302 Found\r\nLocation: " + url("/target").toLatin1() : "HTTP/1.1 200 OK") +
            "\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" +
            body);
        socket->disconnectFromHost();
    }
    void release()
    {
        for (QTcpSocket* socket : std::as_const(held)) {
            if (socket)
                respond(socket);
        }
    }

    QTcpServer server;
    QStringList requestLines;
    QList<QPointer<QTcpSocket>> held;
};

} // namespace

TEST_F(UrlConnectionTest, GetArrivesWithThePathAndRedirectsAreFollowed)
{
    PrefPaneUtilities::getNothingFromURL(QString());
    PrefPaneUtilities::getNothingFromURL(QStringLiteral("http://[::1"));
    EXPECT_EQ(Monitor::liveMonitorCount(), 0);

    PrefPaneUtilities::getNothingFromURL(url("/ping?from=pane"));
    ASSERT_TRUE(requested("GET /ping?from=pane HTTP/1.1"));
    EXPECT_EQ(Monitor::liveMonitorCount(), 0); // a current system needs no monitor
    PrefPaneUtilities::getNothingFromURL(url("/redirect"));
    EXPECT_TRUE(requested("GET /target HTTP/1.1")); // only the redirect names it

    // The body is read and thrown away, and the reply deletes itself.
    QPointer<QNetworkReply> reply = Monitor::connectionWithRequest(QNetworkRequest(QUrl(url("/big"))));
    ASSERT_TRUE(reply);
    qint64 leftAtEnd = -1;
    QObject::connect(reply, &QNetworkReply::finished, [&] { leftAtEnd = reply->bytesAvailable(); });
    ASSERT_TRUE(test::waitUntil([&] { return reply.isNull(); }));
    EXPECT_EQ(leftAtEnd, 0);
}

TEST_F(UrlConnectionTest, OlderSystemHoldsAMonitorUntilTheRequestEndsOrTheManagerGoes)
{
    setSystemVersionSource(fixedSystemVersion(0x100501));
    PrefPaneUtilities::getNothingFromURL(url("/hold"));
    EXPECT_EQ(Monitor::liveMonitorCount(), 1);
    ASSERT_TRUE(requested("GET /hold HTTP/1.1"));
    EXPECT_EQ(Monitor::liveMonitorCount(), 1);
    release();
    EXPECT_TRUE(test::waitUntil([] { return Monitor::liveMonitorCount() == 0; }));

    // An unreachable port ends the request, and the monitor with it.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const QString unreachable = QStringLiteral("http://127.0.0.1:%1/none").arg(closed.serverPort());
    closed.close();
    QPointer<QNetworkReply> reply = Monitor::connectionWithRequest(QNetworkRequest(QUrl(unreachable)));
    EXPECT_EQ(Monitor::liveMonitorCount(), 1);
    EXPECT_TRUE(test::waitUntil([&] { return Monitor::liveMonitorCount() == 0 && reply.isNull(); }));

    // The shared manager belongs to the application; when it goes, in-flight monitors go at once, and
    // the next request gets a fresh manager.
    PrefPaneUtilities::getNothingFromURL(url("/hold"));
    ASSERT_TRUE(
        test::waitUntil([&] { return requestLines.count(QStringLiteral("GET /hold HTTP/1.1")) == 2; }));
    const auto managers = qApp->findChildren<QNetworkAccessManager*>(Qt::FindDirectChildrenOnly);
    ASSERT_EQ(managers.size(), 1);
    delete managers.first();
    EXPECT_EQ(Monitor::liveMonitorCount(), 0);
    PrefPaneUtilities::getNothingFromURL(url("/again"));
    EXPECT_TRUE(requested("GET /again HTTP/1.1"));
}
