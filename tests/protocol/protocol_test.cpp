// The shared names against the interface as checked in and the notification names as posted; the
// notification bus.

#include "protocol/AppProtocol.h"
#include "protocol/NotificationBus.h"
#include "support/FakeAppPeer.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <QXmlStreamReader>
#include <gtest/gtest.h>

using namespace nimbrel;
using nimbrel::test::s;

namespace {

// "name:oneway" or "name:sync" for every method of the interface, in file order.
QStringList methodsOfInterfaceXml()
{
    QFile file(test::sourcePath(s("dbus/com.quorvia.Nimbrel.AppProtocol.xml")));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QStringList methods;
    QString interface;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        const QXmlStreamAttributes attributes = xml.attributes();
        if (xml.name() == u"interface") {
            interface = attributes.value(QLatin1StringView("name")).toString();
        } else if (xml.name() == u"method" && interface == kAppProtocolInterface) {
            methods.append(attributes.value(QLatin1StringView("name")).toString() + s(":sync"));
        } else if (xml.name() == u"annotation" && !methods.isEmpty() &&
                   attributes.value(QLatin1StringView("name")) == u"org.freedesktop.DBus.Method.NoReply" &&
                   attributes.value(QLatin1StringView("value")) == u"true") {
            methods.last().replace(s(":sync"), s(":oneway"));
        }
    }
    EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
    return methods;
}

} // namespace

TEST(Protocol, MethodNamesAndKindsMatchTheInterfaceXml)
{
    QStringList shared;
    for (const AppProtocolMethod& entry : kAppProtocolMethods)
        shared.append(entry.name + (entry.oneWay ? s(":oneway") : s(":sync")));
    EXPECT_EQ(shared, methodsOfInterfaceXml());
}

TEST(Protocol, NotificationNamesAreTheOnesThatArePosted)
{
    const QStringList expected{s("Nimbrel Running"),
                               s("Nimbrel Stopped"),
                               s("Nimbrel Reset"),
                               s("Nimbrel Calendars Changed"),
                               s("Nimbrel Bonjour Update"),
                               s("Nimbrel Bonjour Publishable Change"),
                               s("Nimbrel Bonjour Change"),
                               s("Nimbrel Bonjour Name Published"),
                               s("Nimbrel Bonjour Checked Update"),
                               s("Nimbrel Google Update"),
                               s("Nimbrel Google Change")};
    QStringList shared;
    for (const QLatin1StringView name : notification::all)
        shared.append(name);
    EXPECT_EQ(shared, expected);
}

TEST(NotificationBus, EachNameReachesItsOwnHandlerOnlyUntilAllAreRemoved)
{
    const QStringList names{s("Nimbrel Running"), s("Nimbrel Bonjour Name Published"), s("Nimbrel Reset")};
    test::FakeAppPeer peer;
    NotificationBus bus;
    QStringList received;
    for (const QString& name : names)
        ASSERT_TRUE(bus.addObserver(name, [&received, name] { received.append(name); }));
    EXPECT_EQ(bus.observedNames(), names);
    for (const QString& name : names)
        ASSERT_TRUE(peer.deliver(name));
    EXPECT_EQ(received, names);
    bus.removeAllObservers();
    EXPECT_EQ(bus.observedNames(), QStringList());
    for (const QString& name : names)
        ASSERT_TRUE(peer.deliver(name));
    EXPECT_EQ(received, names);

    // Observing again works; a repeated name keeps one subscription with the newest handler, and a
    // handler may remove every observer, itself included.
    received.clear();
    ASSERT_TRUE(bus.addObserver(names[0], [&] { received.append(s("first")); }));
    ASSERT_TRUE(bus.addObserver(names[0], [&] {
        received.append(s("second"));
        bus.removeAllObservers();
    }));
    ASSERT_TRUE(peer.deliver(names[0]) && peer.deliver(names[0]));
    EXPECT_EQ(received, QStringList{s("second")});
}
