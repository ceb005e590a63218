#pragma once

// Reads the fields of a dictionary that came over the bus, remembering the first thing wrong with it.
// Absent keys read as false, zero or empty; a number reads as a boolean too.

#include "platform/PlistValue.h"

#include <QString>
#include <QVariantMap>

namespace nimbrel::background {

class RequestInput
{
public:
    explicit RequestInput(const QVariantMap& map) : m_map(map) {}

    bool ok() const { return m_problem.isEmpty(); }
    QString problem() const { return m_problem; }
    void fail(const QString& problem)
    {
        if (m_problem.isEmpty())
            m_problem = problem;
    }
    bool has(const char* name) const { return m_map.contains(QLatin1String(name)); }

    bool boolean(const char* name)
    {
        const QVariant v = m_map.value(QLatin1String(name));
        if (!v.isValid())
            return false;
        if (v.typeId() != QMetaType::Bool && plist::typeOf(v) != plist::Type::Integer) {
            wrongType(name, "a boolean");
            return false;
        }
        return v.toBool();
    }
    QString string(const char* name)
    {
        const QVariant v = m_map.value(QLatin1String(name));
        if (!v.isValid())
            return {};
        if (v.typeId() != QMetaType::QString) {
            wrongType(name, "a string");
            return {};
        }
        return v.toString();
    }
    qint64 integer(const char* name)
    {
        const QVariant v = m_map.value(QLatin1String(name));
        if (!v.isValid())
            return 0;
        if (plist::typeOf(v) != plist::Type::Integer) {
            wrongType(name, "an integer");
            return 0;
        }
        return v.toLongLong();
    }
    void dictionary(const char* name)
    {
        const QVariant v = m_map.value(QLatin1String(name));
        if (v.isValid() && v.typeId() != QMetaType::QVariantMap)
            wrongType(name, "a dictionary");
    }
    // "uid": a non-empty string.
    QString uid()
    {
        if (!has("uid")) {
            fail(QStringLiteral("\"uid\" is missing"));
            return {};
        }
        const QString uid = string("uid");
        if (ok() && uid.isEmpty())
            fail(QStringLiteral("\"uid\" is empty"));
        return uid;
    }

private:
    void wrongType(const char* name, const char* expected)
    {
        fail(QStringLiteral("\"%1\" is not %2").arg(QLatin1String(name), QLatin1String(expected)));
    }

    const QVariantMap& m_map;
    QString m_problem;
};

} // namespace nimbrel::background
