// Links what the background application may link (protocol, logging, platform) and nothing else; a
// test reads its dynamic dependencies to make sure none of them pulls in Qt Gui, Widgets or GL.
#include "logging/Log.h"
#include "platform/SettingsStore.h"
#include "protocol/NotificationBus.h"
#include "protocol/WireCodec.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    nimbrel::Log(2, "%@", nimbrel::wire::toWire(QVariant(QStringLiteral("probe"))).toString());
    nimbrel::SettingsStore store(nimbrel::SettingsStore::domainPath(QStringLiteral("probe")));
    return nimbrel::NotificationBus::post(QStringLiteral("probe")) ? 0 : 0;
}
