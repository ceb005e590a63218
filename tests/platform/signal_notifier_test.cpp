// Unix signals reach the event loop as signalReceived, and the handlers before are restored.

#include "platform/SignalNotifier.h"

#include <QEventLoop>
#include <QTimer>
#include <csignal>
#include <gtest/gtest.h>

using nimbrel::SignalNotifier;

TEST(SignalNotifier, SignalsReachTheEventLoopAndTheOldHandlersComeBack)
{
    struct sigaction before = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &before), 0);
    {
        SignalNotifier notifier({SIGTERM, SIGINT});
        ASSERT_TRUE(notifier.isValid());
        SignalNotifier another({SIGTERM});
        EXPECT_FALSE(another.isValid()) << "one notifier at a time";

        for (const int signal : {SIGTERM, SIGINT}) {
            QEventLoop loop;
            QObject::connect(&notifier, &SignalNotifier::signalReceived, &loop,
                             [&](int received) { loop.exit(received); });
            QTimer::singleShot(0, [signal] { raise(signal); });
            QTimer::singleShot(5000, &loop, [&] { loop.exit(-1); }); // guard only; the signal ends it first
            EXPECT_EQ(loop.exec(), signal);
        }
    }
    struct sigaction after = {};
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}
