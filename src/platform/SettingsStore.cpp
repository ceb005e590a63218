#include "platform/SettingsStore.h"

#include "platform/PlistCodec.h"
#include "platform/PlistValue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QStandardPaths>

namespace nimbrel {

namespace {

QMutex g_copyMutex;
QHash<QString, QString> g_corruptCopies; // file path -> where its unreadable contents were kept

void recordCorruptCopy(const QString& path, const QString& copyPath)
{
    QMutexLocker locker(&g_copyMutex);
    g_corruptCopies.insert(path, copyPath);
}

// Keeps the unreadable file as <path>.corrupt (then .corrupt.1, .corrupt.2, ...) unless an identical
// copy is already there. Returns the copy's path, empty when the copy failed.
QString keepCorruptCopy(const QString& path, const QByteArray& contents)
{
    for (int n = 0; n < 1000; ++n) {
        const QString candidate =
            n == 0 ? path + QStringLiteral(".corrupt") : path + QStringLiteral(".corrupt.%1").arg(n);
        QFile existing(candidate);
        if (existing.exists()) {
            if (existing.size() == contents.size() && existing.open(QIODevice::ReadOnly) &&
                existing.readAll() == contents)
                return candidate;
            continue;
        }
        QFile copy(candidate);
        if (!copy.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            continue;
        if (copy.write(contents) != contents.size()) {
            copy.remove();
            return QString();
        }
        copy.close();
        qWarning("The preferences file %s is not a property list; kept it as %s", qPrintable(path),
                 qPrintable(candidate));
        return candidate;
    }
    return QString();
}

bool readPlistSettings(QIODevice& device, QSettings::SettingsMap& map)
{
    const auto* file = qobject_cast<QFile*>(&device);
    const QString path = file ? QFileInfo(file->fileName()).absoluteFilePath() : QString();
    if (device.size() > plist::kMaxFileSize) {
        qWarning("%s: larger than a preferences file can be", qPrintable(path));
        return false;
    }
    const QByteArray contents = device.readAll();
    plist::ParseError error;
    const std::optional<QVariant> root = plist::read(contents, &error);
    if (!root || root->typeId() != QMetaType::QVariantMap) {
        qWarning("%s: %s", qPrintable(path),
                 qPrintable(root ? QStringLiteral("the top level is not a dictionary") : error.toString()));
        // The copy is made here, on reading, because QSettings writes right after it reads within one
        // locked sync: this is the last moment the old bytes are certain to be on disk.
        if (!path.isEmpty())
            recordCorruptCopy(path, keepCorruptCopy(path, contents));
        return false;
    }
    const QVariantMap values = root->toMap();
    for (auto it = values.cbegin(); it != values.cend(); ++it)
        map.insert(it.key(), it.value());
    return true;
}

bool writePlistSettings(QIODevice& device, const QSettings::SettingsMap& map)
{
    QVariantMap values;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        values.insert(it.key(), it.value());
    QString error;
    const std::optional<QByteArray> xml = plist::write(values, &error);
    if (!xml) {
        qWarning("Cannot write preferences: %s", qPrintable(error));
        return false;
    }
    return device.write(*xml) == xml->size();
}

} // namespace

QSettings::Format plistSettingsFormat()
{
    static const QSettings::Format format =
        QSettings::registerFormat(QStringLiteral("plist"), readPlistSettings, writePlistSettings);
    return format;
}

QString SettingsStore::domainPath(const QString& identifier)
{
    QString config = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (config.isEmpty() || !QDir::isAbsolutePath(config))
        config = QDir::homePath() + QStringLiteral("/.config");
    return config + QLatin1Char('/') + identifier + QStringLiteral(".plist");
}

SettingsStore::SettingsStore(const QString& path) : m_path(QFileInfo(path).absoluteFilePath())
{
    QDir().mkpath(QFileInfo(m_path).absolutePath());
    reopen();
    takeStatus();
}

SettingsStore::~SettingsStore() = default;

void SettingsStore::reopen()
{
    m_settings = std::make_unique<QSettings>(m_path, plistSettingsFormat());
    m_settings->setFallbacksEnabled(false);
}

void SettingsStore::takeStatus()
{
    m_status = m_settings->status();
}

void SettingsStore::startFresh()
{
    // QSettings keeps the first error it met (reading at construction included) for the life of the
    // object: one that has met an error is replaced before the next write, so that the status after
    // it is that write's own.
    if (m_settings->status() != QSettings::NoError)
        reopen();
}

QVariant SettingsStore::value(const QString& key) const
{
    return m_settings->value(key);
}

QStringList SettingsStore::keys() const
{
    return m_settings->allKeys();
}

std::optional<bool> SettingsStore::boolValue(const QString& key) const
{
    const QVariant v = value(key);
    if (plist::typeOf(v) != plist::Type::Boolean)
        return std::nullopt;
    return v.toBool();
}

std::optional<double> SettingsStore::numberValue(const QString& key) const
{
    const QVariant v = value(key);
    if (!plist::isNumber(plist::typeOf(v)))
        return std::nullopt;
    return v.toDouble();
}

std::optional<QDateTime> SettingsStore::dateValue(const QString& key) const
{
    const QVariant v = value(key);
    if (plist::typeOf(v) != plist::Type::Date)
        return std::nullopt;
    return v.toDateTime().toUTC();
}

bool SettingsStore::setValue(const QString& key, const QVariant& value)
{
    if (key.isEmpty())
        return false;
    startFresh();
    if (!value.isValid()) {
        m_settings->remove(key);
    } else {
        QString error;
        const QVariant normal = plist::normalized(value, &error);
        if (!normal.isValid()) {
            qWarning("Preference %s not written: %s", qPrintable(key), qPrintable(error));
            return false;
        }
        m_settings->setValue(key, normal);
    }
    m_settings->sync();
    takeStatus();
    // A file that was not a property list was kept aside and written over: the write still happened.
    return m_status != QSettings::AccessError;
}

bool SettingsStore::sync()
{
    startFresh();
    m_settings->sync();
    takeStatus();
    return m_status == QSettings::NoError;
}

QString SettingsStore::corruptCopyPath() const
{
    QMutexLocker locker(&g_copyMutex);
    return g_corruptCopies.value(m_path);
}

} // namespace nimbrel
