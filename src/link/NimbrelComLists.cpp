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

std::optional<CalendarList> NimbrelCom::fetchFresh(ListRequest request, bool byTitle)
{
    std::optional<QVariantList> answer;
    if (m_proxy)
        answer = (m_proxy.get()->*request)();
    else
        answer.emplace(); // no connection: an empty answer, cached like any other
    if (!answer)
        return std::nullopt;
    CalendarList list;
    list.reserve(answer->size());
    for (const QVariant& dictionary : std::as_const(*answer))
        list.append(NimbrelCalendar::create(dictionary.toMap(), this));
    sortList(list, byTitle);
    return list;
}

std::shared_ptr<CalendarList> NimbrelCom::fetchList(std::shared_ptr<CalendarList>& field, ListRequest request,
                                                    bool byTitle)
{
    // A first fetch that fails caches an empty list: asking again on every read would block the pane
    // on a background application that does not answer. The next recalculation tries again.
    if (!field)
        field = std::make_shared<CalendarList>(fetchFresh(request, byTitle).value_or(CalendarList()));
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

const void* NimbrelCom::delegateTarget() const
{
    return dynamic_cast<const void*>(m_delegate);
}

void NimbrelCom::publishViaBonjour(const QVariantMap& calendar, bool informDelegateIfPublished)
{
    // The notice waits for the next pass of the loop, so the table finishes handling the click first;
    // it is aimed at the delegate object so that the pane's cancel-all reaches it.
    if (informDelegateIfPublished && boolValue(calendar, QStringLiteral("publishedToBonjour"))) {
        NimbrelComDelegate* const delegate = m_delegate;
        m_runLoop->performAfterDelay(delegateTarget(), QByteArrayLiteral("nimbrelPublishingCalendar"), 0.0,
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
            delegateTarget(), QByteArrayLiteral("nimbrelSubscribingToCalendar"), 0.0,
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

void NimbrelCom::recalculate(std::shared_ptr<CalendarList>& field, ListRequest request, bool byTitle)
{
    if (!field) {
        fetchList(field, request, byTitle);
        return;
    }
    // Once a list exists it keeps its object: the fresh answer is merged into it, never swapped in. A
    // failed fetch leaves it as it was; only a successful empty answer empties it.
    const std::optional<CalendarList> fresh = fetchFresh(request, byTitle);
    if (!fresh)
        return;
    nimbrel::setCalendarList(*field, *fresh, nullptr);
    sortList(*field, byTitle);
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
