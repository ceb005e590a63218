#pragma once

#include <QVariantMap>

namespace nimbrel {

// What the link tells the pane controller. Every operation is sent without asking whether the delegate
// cares; the pane implements all of them.
class NimbrelComDelegate
{
public:
    virtual ~NimbrelComDelegate() = default;
    virtual void nimbrelBackgroundAppStateChange(bool running, bool responding) = 0;
    virtual void nimbrelProtocolVersionError() = 0;
    virtual void nimbrelBonjourNamePublished() = 0;
    virtual void nimbrelCheckedForUpdate() = 0;
    virtual void nimbrelResetFinished(bool success) = 0;
    virtual void nimbrelPublishingCalendar(const QVariantMap& calendar) = 0;
    virtual void nimbrelSubscribingToCalendar(const QVariantMap& calendar) = 0;
    virtual void nimbrelPublishedCalendarsChanged() = 0;
    virtual void nimbrelSubscribedCalendarsChanged() = 0;
    virtual void nimbrelGoogleSyncProgress(bool inProgress) = 0;
};

} // namespace nimbrel
