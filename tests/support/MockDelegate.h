#pragma once

// Stand-in for the pane controller, the link's delegate: writes every call to `log` in order
// ("StateChange(1,0)", "Publishing(uid)", "Published", ...) for a test to compare with the exact
// sequence it expects.

#include "link/NimbrelComDelegate.h"

#include <QStringList>
#include <utility>

namespace nimbrel::test {

class MockDelegate : public NimbrelComDelegate
{
public:
    // The notices every connect and disconnect ends with.
    static inline const QStringList kRefresh{QStringLiteral("Published"), QStringLiteral("Subscribed"),
                                             QStringLiteral("NamePublished")};

    QStringList log;
    // What was recorded since the last take().
    QStringList take() { return std::exchange(log, {}); }

    void nimbrelBackgroundAppStateChange(bool r, bool s) override { note("StateChange", {int(r), int(s)}); }
    void nimbrelProtocolVersionError() override { note("VersionError"); }
    void nimbrelBonjourNamePublished() override { note("NamePublished"); }
    void nimbrelCheckedForUpdate() override { note("CheckedForUpdate"); }
    void nimbrelResetFinished(bool success) override { note("ResetFinished", {int(success)}); }
    void nimbrelPublishingCalendar(const QVariantMap& c) override { note("Publishing", {uid(c)}); }
    void nimbrelSubscribingToCalendar(const QVariantMap& c) override { note("Subscribing", {uid(c)}); }
    void nimbrelPublishedCalendarsChanged() override { note("Published"); }
    void nimbrelSubscribedCalendarsChanged() override { note("Subscribed"); }
    void nimbrelGoogleSyncProgress(bool inProgress) override { note("GoogleSync", {int(inProgress)}); }

private:
    static QVariant uid(const QVariantMap& calendar) { return calendar.value(QStringLiteral("uid")); }
    void note(const char* what, std::initializer_list<QVariant> arguments = {})
    {
        QStringList texts;
        for (const QVariant& argument : arguments)
            texts << argument.toString();
        log << QLatin1String(what) + (texts.isEmpty() ? QString() : u'(' + texts.join(u',') + u')');
    }
};

} // namespace nimbrel::test
