#pragma once

// The state tests' fixture: a NimbrelState in a private folder that records what it posts.

#include "BackgroundTestSupport.h"
#include "NimbrelState.h"

#include <memory>

namespace nimbrel::background::test {

// Every answer the panel can ask for.
inline QVariantList answers(const NimbrelState& state)
{
    return {state.calendarsPublishableViaBonjour(), state.sourceListOfBonjourCalendars(),
            state.calendarsPublishableToGoogle(), state.sourceListOfGoogleCalendars(),
            state.bonjourPublisherInfo()};
}

// A state in its own folder; `posts` records every notification, `onPost` may look at the disk.
class StateFixture : public ::testing::Test
{
protected:
    QString root = makeTempDir();
    QString dbPath = root + s("/Nimbrel.nsql");
    QString calendarsRoot = root + s("/Calendars");
    QString backupRoot = root + s("/Backup");
    QStringList posts;
    std::function<void(const QString&)> onPost;

    std::unique_ptr<NimbrelState> openState()
    {
        auto state =
            std::make_unique<NimbrelState>(dbPath, calendarsRoot, backupRoot, [this](const QString& name) {
                posts << name;
                if (onPost)
                    onPost(name);
            });
        EXPECT_TRUE(state->open()) << state->lastError().toStdString();
        return state;
    }
};

} // namespace nimbrel::background::test
