#pragma once

// GoogleMock stand-in for the pane controller, the link's delegate.

#include "link/NimbrelComDelegate.h"

#include <QStringList>
#include <gmock/gmock.h>

namespace nimbrel::test {

class MockDelegate : public NimbrelComDelegate
{
public:
    MOCK_METHOD(void, nimbrelBackgroundAppStateChange, (bool running, bool responding), (override));
    MOCK_METHOD(void, nimbrelProtocolVersionError, (), (override));
    MOCK_METHOD(void, nimbrelBonjourNamePublished, (), (override));
    MOCK_METHOD(void, nimbrelCheckedForUpdate, (), (override));
    MOCK_METHOD(void, nimbrelResetFinished, (bool success), (override));
    MOCK_METHOD(void, nimbrelPublishingCalendar, (const QVariantMap& calendar), (override));
    MOCK_METHOD(void, nimbrelSubscribingToCalendar, (const QVariantMap& calendar), (override));
    MOCK_METHOD(void, nimbrelPublishedCalendarsChanged, (), (override));
    MOCK_METHOD(void, nimbrelSubscribedCalendarsChanged, (), (override));
    MOCK_METHOD(void, nimbrelGoogleSyncProgress, (bool inProgress), (override));

    // The notices every connect and disconnect ends with, in their order (inside an InSequence);
    // `done`, when given, is set by the last of them.
    void expectRefresh(bool* done = nullptr)
    {
        EXPECT_CALL(*this, nimbrelPublishedCalendarsChanged());
        EXPECT_CALL(*this, nimbrelSubscribedCalendarsChanged());
        if (done)
            EXPECT_CALL(*this, nimbrelBonjourNamePublished()).WillOnce(::testing::Assign(done, true));
        else
            EXPECT_CALL(*this, nimbrelBonjourNamePublished());
    }

    // Accepts every call and writes it to `log` in order ("StateChange(1,0)", "Published", ...).
    void recordInto(QStringList& log)
    {
        using ::testing::_;
        using ::testing::AnyNumber;
        const auto note = [&log](const QString& entry) { log << entry; };
        EXPECT_CALL(*this, nimbrelBackgroundAppStateChange(_, _))
            .Times(AnyNumber())
            .WillRepeatedly([note](bool r, bool s) {
                note(QStringLiteral("StateChange(%1,%2)").arg(int(r)).arg(int(s)));
            });
        EXPECT_CALL(*this, nimbrelProtocolVersionError()).Times(AnyNumber()).WillRepeatedly([note] {
            note(QStringLiteral("VersionError"));
        });
        EXPECT_CALL(*this, nimbrelBonjourNamePublished()).Times(AnyNumber()).WillRepeatedly([note] {
            note(QStringLiteral("NamePublished"));
        });
        EXPECT_CALL(*this, nimbrelCheckedForUpdate()).Times(AnyNumber()).WillRepeatedly([note] {
            note(QStringLiteral("CheckedForUpdate"));
        });
        EXPECT_CALL(*this, nimbrelResetFinished(_)).Times(AnyNumber()).WillRepeatedly([note](bool ok) {
            note(QStringLiteral("ResetFinished(%1)").arg(int(ok)));
        });
        EXPECT_CALL(*this, nimbrelPublishingCalendar(_))
            .Times(AnyNumber())
            .WillRepeatedly([note](const QVariantMap&) { note(QStringLiteral("Publishing")); });
        EXPECT_CALL(*this, nimbrelSubscribingToCalendar(_))
            .Times(AnyNumber())
            .WillRepeatedly([note](const QVariantMap&) { note(QStringLiteral("Subscribing")); });
        EXPECT_CALL(*this, nimbrelPublishedCalendarsChanged()).Times(AnyNumber()).WillRepeatedly([note] {
            note(QStringLiteral("Published"));
        });
        EXPECT_CALL(*this, nimbrelSubscribedCalendarsChanged()).Times(AnyNumber()).WillRepeatedly([note] {
            note(QStringLiteral("Subscribed"));
        });
        EXPECT_CALL(*this, nimbrelGoogleSyncProgress(_)).Times(AnyNumber()).WillRepeatedly([note](bool busy) {
            note(QStringLiteral("GoogleSync(%1)").arg(int(busy)));
        });
    }
};

} // namespace nimbrel::test
