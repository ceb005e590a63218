#include "platform/KeyValueFile.h"

#include <QFile>

namespace nimbrel {

std::optional<QString> KeyValueGroup::value(const QString& key) const
{
    for (const auto& [name, text] : entries) {
        if (name == key)
            return text;
    }
    return std::nullopt;
}

std::optional<QList<KeyValueGroup>> readKeyValueFile(const QString& path, qint64 maxBytes)
{
    QFile file(path);
    if (file.size() > maxBytes || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray bytes = file.read(maxBytes + 1);
    if (bytes.size() > maxBytes)
        return std::nullopt; // grew while being read
    const QString text = QString::fromUtf8(bytes);

    QList<KeyValueGroup> groups;
    for (QStringView line : QStringView(text).split(QLatin1Char('\n'))) {
        if (line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        const QStringView trimmed = line.trimmed();
        if (trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#')))
            continue;
        if (trimmed.startsWith(QLatin1Char('['))) {
            const qsizetype close = trimmed.indexOf(QLatin1Char(']'));
            if (close > 0)
                groups.append({trimmed.sliced(1, close - 1).toString(), {}});
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            continue;
        const QString key = line.first(equals).trimmed().toString();
        QStringView value = line.sliced(equals + 1);
        while (!value.isEmpty() && (value.front() == QLatin1Char(' ') || value.front() == QLatin1Char('\t')))
            value = value.sliced(1);
        if (key.isEmpty())
            continue;
        if (groups.isEmpty())
            groups.append({QString(), {}});
        groups.last().entries.append({key, value.toString()});
    }
    return groups;
}

} // namespace nimbrel
