#include "model/NimbrelCalendar.h"

#include "model/CalendarLink.h"
#include "platform/KeyboardState.h"
#include "platform/PlistValue.h"

#include <QMetaType>
#include <algorithm>
#include <cmath>
#include <limits>

namespace nimbrel {

namespace {

const QString kUid = plist::sharedKey("uid");
const QString kTitle = plist::sharedKey("title");
const QString kSource = plist::sharedKey("source");
const QString kCalendars = plist::sharedKey("calendars");
const QString kOrder = plist::sharedKey("order");
const QString kPublishedToBonjour = plist::sharedKey("publishedToBonjour");
const QString kPublishedToGoogle = plist::sharedKey("publishedToGoogle");
const QString kSubscribedTo = plist::sharedKey("subscribedTo");
const QString kSubscribable = plist::sharedKey("subscribable");
const QString kSubscribePassword = plist::sharedKey("subscribePassword");
const QString kReadProtected = plist::sharedKey("readProtected");
const QString kReadOnly = plist::sharedKey("readOnly");
const QString kReadableByAnyone = plist::sharedKey("readableByAnyone");
const QString kWritableByAnyone = plist::sharedKey("writableByAnyone");
const QString kOffline = plist::sharedKey("offline");
const QString kRemoteURL = plist::sharedKey("remoteURL");

// The keys bound views read from a row, announced together whenever the record is replaced.
const QStringList& recordKeys()
{
    static const QStringList keys = {kTitle,
                                     kPublishedToBonjour,
                                     kPublishedToGoogle,
                                     QStringLiteral("publishOptions"),
                                     kSubscribedTo,
                                     QStringLiteral("subscribeOptions"),
                                     QStringLiteral("children"),
                                     QStringLiteral("childCount")};
    return keys;
}

bool isNumber(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Long:
    case QMetaType::ULong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

// A missing title sorts as the empty one.
QString titleText(const CalendarRecord& record)
{
    return record.value(kTitle).toString();
}

std::function<bool()>& alternateKeySource()
{
    static std::function<bool()> source;
    return source;
}

} // namespace

// Only property-list booleans and numbers carry truth; a string such as "true" reads as false, as does
// any other type, so a malformed record never switches a flag on.
bool boolValue(const QVariant& value)
{
    if (!isNumber(value))
        return false;
    if (value.typeId() == QMetaType::Double || value.typeId() == QMetaType::Float) {
        const double number = value.toDouble();
        return number != 0.0 && !std::isnan(number);
    }
    return value.toBool();
}

NimbrelCalendar::NimbrelCalendar(const QVariantMap& dictionary, CalendarLink* com)
    : m_dict(dictionary), m_com(com)
{
    if (!boolValue(m_dict, kSource))
        return;
    m_dict.remove(kCalendars);
    m_calendarsFromSource = std::make_unique<CalendarList>();
    const QVariantList calendars = dictionary.value(kCalendars).toList();
    m_calendarsFromSource->reserve(calendars.size());
    for (const QVariant& calendar : calendars) {
        // An element that is not a dictionary describes nothing; it is left out.
        if (calendar.typeId() != QMetaType::QVariantMap)
            continue;
        m_calendarsFromSource->append(create(calendar.toMap(), com));
    }
    sortByTitle(*m_calendarsFromSource);
}

CalendarRef NimbrelCalendar::create(const QVariantMap& dictionary, CalendarLink* com)
{
    return std::make_shared<NimbrelCalendar>(dictionary, com);
}

void NimbrelCalendar::setRecord(CalendarRecord incoming)
{
    // Unsubscribing forgets the password given for the subscription.
    if (boolValue(m_dict, kSubscribedTo) && !boolValue(incoming, kSubscribedTo))
        incoming.remove(kSubscribePassword);
    // Without the password only what the publisher grants to anyone is left.
    if (!m_dict.value(kSubscribePassword).toString().isEmpty() &&
        incoming.value(kSubscribePassword).toString().isEmpty()) {
        incoming.insert(kReadProtected, !boolValue(incoming, kReadableByAnyone));
        incoming.insert(kReadOnly, !boolValue(incoming, kWritableByAnyone));
    }
    if (m_dict == incoming)
        return;

    const QStringList& keys = recordKeys();
    for (const QString& key : keys)
        willChangeValueForKey(key);
    incoming.remove(kCalendars);
    m_dict = std::move(incoming);
    for (const QString& key : keys)
        didChangeValueForKey(key);
}

QVariant NimbrelCalendar::uid() const
{
    return m_dict.value(kUid);
}

QVariant NimbrelCalendar::title() const
{
    return m_dict.value(kTitle);
}

QVariant NimbrelCalendar::publishedToBonjour() const
{
    return m_dict.value(kPublishedToBonjour);
}

QVariant NimbrelCalendar::publishedToGoogle() const
{
    return m_dict.value(kPublishedToGoogle);
}

QVariant NimbrelCalendar::subscribedTo() const
{
    return m_dict.value(kSubscribedTo);
}

QVariant NimbrelCalendar::subscribable() const
{
    return m_dict.value(kSubscribable);
}

// Numbers only; a fractional order is cut towards zero, one out of range is clamped.
qint64 NimbrelCalendar::sortOrder() const
{
    const QVariant order = m_dict.value(kOrder);
    if (!isNumber(order))
        return 0;
    if (order.typeId() == QMetaType::Double || order.typeId() == QMetaType::Float) {
        const double number = std::trunc(order.toDouble());
        if (std::isnan(number))
            return 0;
        if (number >= 9.2e18)
            return std::numeric_limits<qint64>::max();
        if (number <= -9.2e18)
            return std::numeric_limits<qint64>::min();
        return static_cast<qint64>(number);
    }
    if (order.typeId() == QMetaType::ULongLong || order.typeId() == QMetaType::ULong) {
        const qulonglong number = order.toULongLong();
        return number > qulonglong(std::numeric_limits<qint64>::max()) ? std::numeric_limits<qint64>::max()
                                                                       : qint64(number);
    }
    return order.toLongLong();
}

bool NimbrelCalendar::isOffline() const
{
    return boolValue(m_dict, kOffline);
}

int NimbrelCalendar::childCount() const
{
    return m_calendarsFromSource ? int(m_calendarsFromSource->size()) : 0;
}

bool NimbrelCalendar::isRemoteServer() const
{
    return !isLeaf() && m_dict.value(kRemoteURL).isValid();
}

int compareCaseless(QStringView a, QStringView b)
{
    const qsizetype common = std::min(a.size(), b.size());
    for (qsizetype i = 0; i < common; ++i) {
        char16_t x = a[i].unicode(), y = b[i].unicode();
        if (x >= 0x80 || y >= 0x80) // folding beyond ASCII: Qt's own, from the first such character on
            return QtPrivate::compareStrings(a.sliced(i), b.sliced(i), Qt::CaseInsensitive);
        x = x >= u'A' && x <= u'Z' ? char16_t(x + 32) : x;
        y = y >= u'A' && y <= u'Z' ? char16_t(y + 32) : y;
        if (x != y)
            return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

int NimbrelCalendar::compareTitle(const NimbrelCalendar& other) const
{
    return compareCaseless(titleText(m_dict), titleText(other.m_dict));
}

int NimbrelCalendar::compare(const NimbrelCalendar& other) const
{
    const qint64 mine = sortOrder();
    const qint64 theirs = other.sortOrder();
    if (mine != theirs)
        return mine < theirs ? -1 : 1;
    return compareTitle(other);
}

bool NimbrelCalendar::isEqualToCalendar(const NimbrelCalendar& other) const
{
    const QVariant mine = uid();
    if (mine.isValid()) {
        const QVariant theirs = other.uid();
        return theirs.isValid() && mine == theirs;
    }
    const QVariant myTitle = title();
    const QVariant theirTitle = other.title();
    return myTitle.isValid() && theirTitle.isValid() && myTitle == theirTitle;
}

void NimbrelCalendar::setPublishedToBonjour(const QVariant& value)
{
    CalendarRecord changed = m_dict;
    changed.insert(kPublishedToBonjour, value);
    setRecord(std::move(changed));
    if (m_com)
        m_com->publishViaBonjour(dict(), !alternateKeyDown());
}

void NimbrelCalendar::setSubscribedTo(const QVariant& value)
{
    CalendarRecord changed = m_dict;
    changed.insert(kSubscribedTo, value);
    setRecord(std::move(changed));
    if (m_com)
        m_com->subscribeTo(dict(), !alternateKeyDown());
}

void NimbrelCalendar::setPublishedToGoogle(const QVariant& value)
{
    CalendarRecord changed = m_dict;
    changed.insert(kPublishedToGoogle, value);
    setRecord(std::move(changed));
    if (m_com)
        m_com->publishToGoogle(dict());
}

// Only the one flag is announced: the options sheet that led here already stored the rest.
void NimbrelCalendar::autoPublishToBonjour()
{
    if (boolValue(m_dict, kPublishedToBonjour))
        return;
    willChangeValueForKey(kPublishedToBonjour);
    m_dict.insert(kPublishedToBonjour, true);
    didChangeValueForKey(kPublishedToBonjour);
    if (m_com)
        m_com->publishViaBonjour(dict(), false);
}

void NimbrelCalendar::autoSubscribeTo()
{
    if (boolValue(m_dict, kSubscribedTo))
        return;
    willChangeValueForKey(kSubscribedTo);
    m_dict.insert(kSubscribedTo, true);
    didChangeValueForKey(kSubscribedTo);
    if (m_com)
        m_com->subscribeTo(dict(), false);
}

// The sheet's own record goes to the link, passwords included; what is stored may differ (setDict).
void NimbrelCalendar::setPublishOptions(const QVariantMap& dictionary)
{
    setDict(dictionary);
    if (m_com)
        m_com->setPublishOptions(dictionary);
}

void NimbrelCalendar::setSubscribeOptions(const QVariantMap& dictionary)
{
    setDict(dictionary);
    if (m_com)
        m_com->setSubscribeOptions(dictionary);
}

void NimbrelCalendar::setAlternateKeySource(std::function<bool()> source)
{
    alternateKeySource() = std::move(source);
}

bool NimbrelCalendar::alternateKeyDown() const
{
    if (const auto& source = alternateKeySource())
        return source();
    return nimbrel::alternateKeyDown();
}

void NimbrelCalendar::sortByCompare(CalendarList& list)
{
    std::stable_sort(list.begin(), list.end(),
                     [](const CalendarRef& a, const CalendarRef& b) { return a->compare(*b) < 0; });
}

void NimbrelCalendar::sortByTitle(CalendarList& list)
{
    std::stable_sort(list.begin(), list.end(),
                     [](const CalendarRef& a, const CalendarRef& b) { return a->compareTitle(*b) < 0; });
}

} // namespace nimbrel
