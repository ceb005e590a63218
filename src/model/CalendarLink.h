#pragma once

// What a calendar row asks of the link to the background application: the requests a checkbox or an
// options sheet sends. The link (NimbrelCom) implements it; tests use a recording double.

#include <QVariantMap>

namespace nimbrel {

class CalendarLink
{
public:
    virtual ~CalendarLink() = default;
    virtual void publishViaBonjour(const QVariantMap& calendar, bool informDelegateIfPublished) = 0;
    virtual void subscribeTo(const QVariantMap& calendar, bool informDelegateIfSubscribed) = 0;
    virtual void publishToGoogle(const QVariantMap& calendar) = 0;
    virtual void setPublishOptions(const QVariantMap& calendar) = 0;
    virtual void setSubscribeOptions(const QVariantMap& calendar) = 0;
};

} // namespace nimbrel
