#include "Publishing.h"

#include "NimbrelState.h"
#include "logging/Log.h"
#include "protocol/Notifications.h"

#include <QFile>
#include <QHostInfo>
#include <QSaveFile>
#include <QUuid>

namespace nimbrel::background {

namespace {

QString readSmall(const QString& path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.read(256)).trimmed() : QString();
}

void writeSmall(const QString& path, const QString& text)
{
    QSaveFile f(path);
    if (f.open(QIODevice::WriteOnly)) {
        f.write(text.toUtf8());
        f.commit();
    }
}

} // namespace

Publishing::Publishing(NimbrelState& state, const QString& dataFolder, Poster post, QObject* parent)
    : QObject(parent)
    , m_state(state)
    , m_dataFolder(dataFolder)
    , m_post(std::move(post))
    , m_publisher(*state.publishedStore())
{
    m_instanceId = readSmall(m_dataFolder + QStringLiteral("/caldav-instance-id"));
    if (m_instanceId.isEmpty()) {
        m_instanceId = QUuid::createUuid().toString(QUuid::WithoutBraces);
        writeSmall(m_dataFolder + QStringLiteral("/caldav-instance-id"), m_instanceId);
    }
    connect(&m_publisher, &publish::CaldavPublisher::namePublished, this, &Publishing::answered);
    connect(&m_publisher, &publish::CaldavPublisher::nameFailed, this, [this] { answered({}); });
    m_state.setPublisherInfoChanged([this] {
        m_answerOwed = true;
        apply(false);
    });
}

Publishing::~Publishing()
{
    m_state.setPublisherInfoChanged({});
    stop();
}

void Publishing::start()
{
    apply(true);
}

void Publishing::stop()
{
    m_publisher.stop();
    m_servedPort = -1;
}

void Publishing::apply(bool restartServer)
{
    const QVariantMap info = m_state.storedPublisherInfo();
    const qint64 port = info.value(QStringLiteral("portNumber")).toLongLong();
    const QString name = info.value(QStringLiteral("bonjourName")).toString();
    if (restartServer || port != m_servedPort || !m_publisher.isServing()) {
        publish::PublisherConfig config;
        config.dataFolder = m_dataFolder;
        config.hostName = QHostInfo::localHostName();
        config.fixedPort = quint16(port);
        config.lastPort = quint16(readSmall(m_dataFolder + QStringLiteral("/caldav-last-port")).toUInt());
        QString error;
        m_servedPort = port;
        if (!m_publisher.start(config, &error)) {
            Log(13, "Publishing: nothing is served: %@", error);
            answered({});
            return;
        }
        if (!port)
            writeSmall(m_dataFolder + QStringLiteral("/caldav-last-port"), QString::number(m_publisher.port()));
    }
    m_publisher.announce(name, m_instanceId);
}

void Publishing::answered(const QString& publishedName)
{
    m_state.setPublishedName(publishedName);
    if (m_answerOwed) {
        m_answerOwed = false;
        m_post(notification::bonjourNamePublished);
    }
}

} // namespace nimbrel::background
