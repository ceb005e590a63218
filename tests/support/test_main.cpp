// Test entry point: a QApplication exists for every test (offscreen platform), so timers,
// widgets and D-Bus all work the way they do in the programs.
#include <QApplication>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    ::testing::InitGoogleMock(&argc, argv);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("nimbrel-tests"));
    return RUN_ALL_TESTS();
}
