#include "platform/FileUtilities.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace nimbrel;

TEST(FileUtilitiesTest, KnownExtensionsGiveTheirType)
{
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("report.pdf")), QStringLiteral("application/pdf"));
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("A.PDF")), QStringLiteral("application/pdf"));
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("/some/dir.d/page.html")), QStringLiteral("text/html"));
}

TEST(FileUtilitiesTest, OnlyTheLastExtensionCounts)
{
    // "tar.gz" as a whole names a compressed archive; the last extension alone names gzip data.
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("a.tar.gz")), QStringLiteral("application/gzip"));
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("notes.txt.pdf")), QStringLiteral("application/pdf"));
}

TEST(FileUtilitiesTest, NoOrUnknownExtensionIsPlainText)
{
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("README")), QStringLiteral("text/plain"));
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("x.qqqzz")), QStringLiteral("text/plain"));
    EXPECT_EQ(mimeTypeForFileName(QString()), QStringLiteral("text/plain"));
    EXPECT_EQ(mimeTypeForFileName(QStringLiteral("trailing.")), QStringLiteral("text/plain"));
}

TEST(FileUtilitiesTest, ContentsOfAnExistingFileAreIgnored)
{
    // A PDF named .txt stays text: only the name is consulted.
    const QString path = test::makeTempDir() + QStringLiteral("/fake.txt");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("%PDF-1.4\n%\xe2\xe3\xcf\xd3\n");
    file.close();
    EXPECT_EQ(mimeTypeForFileName(path), QStringLiteral("text/plain"));
}
