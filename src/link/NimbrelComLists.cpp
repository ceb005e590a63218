// NimbrelCom: the four calendar lists (fetched lazily, cached, merged in place), lookups in them, the
// requests that calendar rows send, and the notification handlers that refresh the lists.

#include "link/NimbrelCom.h"
#include "link/NimbrelComDelegate.h"
#include "model/CalendarMerge.h"
#include "platform/RunLoop.h"

namespace nimbrel {

namespace {

void sortList(CalendarList& list, bool byTitle)
{
    if (byTitle)
        NimbrelCalendar::sortByTitle(list);
    else
        NimbrelCalendar::sortByCompare(list);
}

} // namespace

// ---- Getters -----------------------------------------------------------------------------------

std::shared_ptr<CalendarList> NimbrelCom::fetchList(std::shared_ptr<CalendarList>& field,
                                                    QVariantList (AppProtocolProxy::*request)() const,
                                                    bool byTitle)
{
    if (!field) {
        // Without a proxy the empty answer is cached like any other until the next recalculation.
        const QVariantList answer = m_proxy ? (m_proxy.get()->*request)() : QVariantList();
        auto list = std::make_shared<CalendarList>();
        list->reserve(answer.size());
        for (const QVariant& dictionary : answer)
            list->append(NimbrelCalendar::create(dictionary.toMap(), this));
        sortList(*list, byTitle);
        field = std::move(list);
    }
    return field;
}

std::shared_ptr<CalendarList> NimbrelCom::calendarsPublishableViaBonjour()
{
    return fetchList(m_proxy_published_calendars, &AppProtocolProxy::calendarsPublishableViaBonjour, false);
}

std::shared_ptr<CalendarList> NimbrelCom::sourceListOfBonjourCalendars()
{
    return fetchList(m_proxy_subscribed_calendars, &AppProtocolProxy::sourceListOfBonjourCalendars, true);
}

std::shared_ptr<CalendarList> NimbrelCom::calendarsPublishableToGoogle()
{
    return fetchList(m_proxy_google_published_calendars, &AppProtocolProxy::calendarsPublishableToGoogle,
                     false);
}

std::shared_ptr<CalendarList> NimbrelCom::sourceListOfGoogleCalendars()
{
    return fetchList(m_proxy_google_subscribed_calendars, &AppProtocolProxy::sourceListOfGoogleCalendars,
                     true);
}

// ---- Lookups -----------------------------------------------------------------------------------

CalendarRef NimbrelCom::matchingCalendar(const NimbrelCalendar& calendar, const CalendarList& list) const
{
    return nimbrel::matchingCalendar(calendar, list);
}

CalendarRef NimbrelCom::calendarWithDict(const QVariantMap& dictionary, const CalendarList& list)
{
    const NimbrelCalendar probe(dictionary, this);
    return nimbrel::matchingCalendar(probe, list);
}

CalendarRef NimbrelCom::sourceOfCalendarWithDict(const QVariantMap& dictionary)
{
    // Only what is cached: asking for the source must not fetch the list.
    if (!m_proxy_subscribed_calendars)
        return nullptr;
    const NimbrelCalendar probe(dictionary, this);
    for (const CalendarRef& source : *m_proxy_subscribed_calendars) {
        if (const CalendarList* children = source->children();
            children && nimbrel::matchingCalendar(probe, *children))
            return source;
    }
    return nullptr;
}

// ---- Requests from rows ------------------------------------------------------------------------

void NimbrelCom::publishViaBonjour(const QVariantMap& calendar, bool informDelegateIfPublished)
{
    // The notice waits for the next pass of the loop, so the table finishes handling the click first;
    // it is aimed at the delegate so that the pane can cancel it.
    if (informDelegateIfPublished && boolValue(calendar, QStringLiteral("publishedToBonjour"))) {
        NimbrelComDelegate* const delegate = m_delegate;
        m_runLoop->performAfterDelay(static_cast<const void*>(delegate),
                                     QByteArrayLiteral("nimbrelPublishingCalendar"), 0.0,
                                     [delegate, calendar] { delegate->nimbrelPublishingCalendar(calendar); });
    }
    if (m_proxy)
        m_proxy->publishCalendarViaBonjour(calendar);
}

void NimbrelCom::subscribeTo(const QVariantMap& calendar, bool informDelegateIfSubscribed)
{
    // Only calendars of computers found over Bonjour get the options sheet, not those of remote servers.
    if (informDelegateIfSubscribed && boolValue(calendar, QStringLiteral("subscribedTo")) &&
        boolValue(calendar, QStringLiteral("bonjour"))) {
        NimbrelComDelegate* const delegate = m_delegate;
        m_runLoop->performAfterDelay(
            static_cast<const void*>(delegate), QByteArrayLiteral("nimbrelSubscribingToCalendar"), 0.0,
            [delegate, calendar] { delegate->nimbrelSubscribingToCalendar(calendar); });
    }
    if (m_proxy)
        m_proxy->subscribeTo(calendar);
}

void NimbrelCom::publishToGoogle(const QVariantMap& calendar)
{
    if (m_proxy)
        m_proxy->publishCalendarToGoogle(calendar);
}

// ---- Merge and recalculation -------------------------------------------------------------------

void NimbrelCom::setCalendarList(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* source)
{
    nimbrel::setCalendarList(kept, fresh, source);
}

void NimbrelCom::recalculate(std::shared_ptr<CalendarList>& field,
                             QVariantList (AppProtocolProxy::*request)() const, bool byTitle)
{
    // Once a list exists it keeps its object: the fresh answer is merged into it, never swapped in.
    std::shared_ptr<CalendarList> old = std::move(field);
    field.reset();
    const std::shared_ptr<CalendarList> fresh = fetchList(field, request, byTitle);
    if (old) {
        nimbrel::setCalendarList(*old, *fresh, nullptr);
        sortList(*old, byTitle);
        field = std::move(old);
    }
}

void NimbrelCom::calcChangesForPublishedCalendars()
{
    recalculate(m_proxy_published_calendars, &AppProtocolProxy::calendarsPublishableViaBonjour, false);
    recalculate(m_proxy_google_published_calendars, &AppProtocolProxy::calendarsPublishableToGoogle, false);
    m_delegate->nimbrelPublishedCalendarsChanged();
}

void NimbrelCom::calcChangesForSubscribedCalendars()
{
    recalculate(m_proxy_subscribed_calendars, &AppProtocolProxy::sourceListOfBonjourCalendars, true);
    recalculate(m_proxy_google_subscribed_calendars, &AppProtocolProxy::sourceListOfGoogleCalendars, true);
    m_delegate->nimbrelSubscribedCalendarsChanged();
}

// ---- Notification handlers ---------------------------------------------------------------------

void NimbrelCom::calendarsChanged()
{
    calcChangesForPublishedCalendars();
    calcChangesForSubscribedCalendars();
}

void NimbrelCom::bonjourServiceUpdate()
{
    calcChangesForSubscribedCalendars();
}

void NimbrelCom::publishableCalendarsChanged()
{
    calcChangesForPublishedCalendars();
}

void NimbrelCom::subscribeCalendarsChanged()
{
    calcChangesForSubscribedCalendars();
}

void NimbrelCom::googleServiceUpdate()
{
    calendarsChanged();
    m_delegate->nimbrelGoogleSyncProgress(m_proxy ? m_proxy->googleSyncInProgress() : false);
}

void NimbrelCom::googleSynchingChanged()
{
    googleServiceUpdate();
}

} // namespace nimbrel
