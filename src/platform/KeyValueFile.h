#pragma once

// One reader for the KEY=value files of the desktop: desktop entries, os-release, the KDE e-mail
// defaults. A line is "[Group]", "KEY=value", a "#" comment or blank; blanks around the key and before
// the value are dropped. Values come back as written: each format unescapes its own way.

#include <QList>
#include <QString>
#include <optional>
#include <utility>

namespace nimbrel {

struct KeyValueGroup
{
    QString name; // empty for the lines before the first group header
    QList<std::pair<QString, QString>> entries;

    // The value of the first entry named `key`.
    std::optional<QString> value(const QString& key) const;
};

// The groups of the file in file order (the unnamed one first, when there are lines before any
// header); nullopt when it cannot be read or is larger than `maxBytes`.
std::optional<QList<KeyValueGroup>> readKeyValueFile(const QString& path, qint64 maxBytes = 1024 * 1024);

} // namespace nimbrel
