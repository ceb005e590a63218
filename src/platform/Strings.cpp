#include "platform/Strings.h"

#include <QCoreApplication>

namespace nimbrel {

QString localizedString(const QString& key, const QString& table)
{
    return QCoreApplication::translate(table.toUtf8().constData(), key.toUtf8().constData());
}

QString fillPlaceholders(const QString& format, const QStringList& arguments)
{
    QString result;
    result.reserve(format.size() + 16 * arguments.size());
    qsizetype next = 0; // the argument "%@" takes
    const qsizetype length = format.size();
    for (qsizetype i = 0; i < length; ++i) {
        const QChar c = format.at(i);
        if (c != QLatin1Char('%') || i + 1 >= length) {
            result += c;
            continue;
        }
        const QChar d = format.at(i + 1);
        if (d == QLatin1Char('%')) {
            result += QLatin1Char('%');
            ++i;
        } else if (d == QLatin1Char('@')) {
            result += arguments.value(next++);
            ++i;
        } else if (d.isDigit()) {
            // "%N$@": the N-th argument, 1-based.
            qsizetype j = i + 1;
            qsizetype index = 0;
            while (j < length && format.at(j).isDigit() && index < 100000)
                index = index * 10 + format.at(j++).digitValue();
            if (j + 1 < length && format.at(j) == QLatin1Char('$') && format.at(j + 1) == QLatin1Char('@') &&
                index > 0) {
                result += arguments.value(index - 1);
                i = j + 1;
            } else {
                result += c;
            }
        } else {
            result += c;
        }
    }
    return result;
}

QString localizedFormat(const QString& key, const QStringList& arguments)
{
    return fillPlaceholders(localizedString(key), arguments);
}

} // namespace nimbrel
