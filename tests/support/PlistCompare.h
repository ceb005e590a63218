#pragma once

#include <QDateTime>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>
#include <algorithm>
#include <cmath>
#include <cstring>

namespace nimbrel::test {

// Deep comparison of property-list values, bit for bit: same type at every level, NaN equals NaN,
// -0.0 differs from 0.0, dates must be UTC. A null value is identical to nothing.
inline bool identical(const QVariant& a, const QVariant& b)
{
    if (a.typeId() != b.typeId())
        return false;
    switch (a.typeId()) {
    case QMetaType::Double: {
        const double x = a.toDouble(), y = b.toDouble();
        return std::memcmp(&x, &y, sizeof x) == 0 || (std::isnan(x) && std::isnan(y));
    }
    case QMetaType::QDateTime:
        return a == b && a.toDateTime().timeSpec() == Qt::UTC && b.toDateTime().timeSpec() == Qt::UTC;
    case QMetaType::QVariantList: {
        const QVariantList x = a.toList(), y = b.toList();
        return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(), identical);
    }
    case QMetaType::QVariantMap: {
        const QVariantMap x = a.toMap(), y = b.toMap();
        return x.keys() == y.keys() && std::equal(x.begin(), x.end(), y.begin(), identical);
    }
    default:
        return a.isValid() && a == b;
    }
}

} // namespace nimbrel::test
