// The shared names against the interface as checked in, and the notification names as posted.

#include "protocol/AppProtocol.h"
#include "protocol/Notifications.h"
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
