#include "platform/FileUtilities.h"
#include "support/TestEnvironment.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace nimbrel;

TEST(FileUtilitiesTest, TheLastExtensionOfTheNameGivesTheType)
{
    // "tar.gz" as a whole names a compressed archive; the last extension alone names gzip data.
    const std::pair<const char*, const char*> cases[] = {
        {"report.pdf", "application/pdf"},
        {"A.PDF", "application/pdf"},
        {"/some/dir.d/page.html", "text/html"},
        {"a.tar.gz", "application/gzip"},
        {"notes.txt.pdf", "application/pdf"},
        {"README", "text/plain"},
        {"x.qqqzz", "text/plain"},
        {"", "text/plain"},
        {"trailing.", "text/plain"},
    };
    for (const auto& [name, type] : cases)
        EXPECT_EQ(mimeTypeForFileName(QLatin1String(name)), QLatin1String(type)) << name;

    // A PDF named .txt stays text: only the name is consulted.
    const QString path = test::makeTempDir() + QStringLiteral("/fake.txt");
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("%PDF-1.4\n%\xe2\xe3\xcf\xd3\n");
    file.close();
    EXPECT_EQ(mimeTypeForFileName(path), QStringLiteral("text/plain"));
}
