#include "platform/FileUtilities.h"

#include <QFileInfo>
#include <QMimeDatabase>

namespace nimbrel {

QString mimeTypeForFileName(const QString& fileName)
{
    static const QString fallback = QStringLiteral("text/plain");
    const QString extension = QFileInfo(fileName).suffix();
    if (extension.isEmpty())
        return fallback;

    // Only the extension decides, never the rest of the name nor the file's contents.
    const QList<QMimeType> types = QMimeDatabase().mimeTypesForFileName(QStringLiteral("x.") + extension);
    for (const QMimeType& type : types) {
        if (type.name().startsWith(QLatin1String("inode/")))
            continue;
        const QString name = type.name();
        return name.isEmpty() ? QString() : name;
    }
    return fallback;
}

} // namespace nimbrel
