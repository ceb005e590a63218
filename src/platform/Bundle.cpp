#include "platform/Bundle.h"

#include "platform/PlistCodec.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QSet>
#include <QTranslator>

namespace nimbrel {

Bundle::Bundle(const QString& path) : m_path(QDir::cleanPath(QFileInfo(path).absoluteFilePath()))
{
    if (!QFileInfo(m_path).isDir()) {
        m_error = QStringLiteral("%1 is not a folder").arg(m_path);
        return;
    }
    plist::ParseError parseError;
    const std::optional<QVariant> info = plist::readFile(infoPlistPath(), &parseError);
    if (!info) {
        m_error = QStringLiteral("%1: %2").arg(infoPlistPath(), parseError.toString());
        return;
    }
    if (info->typeId() != QMetaType::QVariantMap) {
        m_error = QStringLiteral("%1: the top level is not a dictionary").arg(infoPlistPath());
        return;
    }
    m_info = info->toMap();
    m_valid = true;
}

QString Bundle::resourcePath() const
{
    return m_path.isEmpty() ? QString() : m_path + QStringLiteral("/Resources");
}

QString Bundle::infoPlistPath() const
{
    return m_path.isEmpty() ? QString() : m_path + QStringLiteral("/Info.plist");
}

QString Bundle::bundleIdentifier() const
{
    return m_info.value(QStringLiteral("CFBundleIdentifier")).toString();
}

QString Bundle::executablePath() const
{
    const QString name = m_info.value(QStringLiteral("CFBundleExecutable")).toString();
    if (name.isEmpty() || name.contains(QLatin1Char('/')))
        return QString();
    return m_path + QLatin1Char('/') + name;
}

QString Bundle::pathForResource(const QString& name, const QString& type) const
{
    if (!m_valid || name.isEmpty() || name.contains(QLatin1Char('/')) || type.contains(QLatin1Char('/')))
        return QString();
    const QString file = type.isEmpty() ? name : name + QLatin1Char('.') + type;
    const QString path = resourcePath() + QLatin1Char('/') + file;
    return QFileInfo::exists(path) ? path : QString();
}

std::optional<Bundle> Bundle::appBundleForResource(const QString& name) const
{
    const QString path = pathForResource(name, QStringLiteral("app"));
    if (path.isEmpty())
        return std::nullopt;
    Bundle app(path);
    if (!app.isValid())
        return std::nullopt;
    return app;
}

bool Bundle::loadStringTable(const QString& table) const
{
    // One translator per table file for the life of the application; loading twice is a no-op.
    static QSet<QString> loaded;
    if (!m_valid || table.isEmpty())
        return false;
    QStringList candidates;
    for (const QString& language : QLocale().uiLanguages()) {
        QString code = language;
        code.replace(QLatin1Char('-'), QLatin1Char('_'));
        candidates << code << code.section(QLatin1Char('_'), 0, 0);
    }
    candidates << QStringLiteral("en");
    for (const QString& code : std::as_const(candidates)) {
        const QString file = pathForResource(table + QLatin1Char('_') + code, QStringLiteral("qm"));
        if (file.isEmpty())
            continue;
        if (loaded.contains(file))
            return true;
        auto* translator = new QTranslator(QCoreApplication::instance());
        if (!translator->load(file)) {
            delete translator;
            continue;
        }
        QCoreApplication::installTranslator(translator);
        loaded.insert(file);
        return true;
    }
    return false;
}

QString Bundle::defaultPaneBundlePath()
{
    const QString fromEnvironment = qEnvironmentVariable("NIMBREL_PANE_BUNDLE");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    return QDir::cleanPath(QCoreApplication::applicationDirPath() +
                           QStringLiteral("/../lib/nimbrel/Nimbrel.prefPane"));
}

} // namespace nimbrel
