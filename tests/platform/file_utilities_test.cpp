#include "platform/FileUtilities.h"
#include "support/TestEnvironment.h"

#include <gtest/gtest.h>

using namespace nimbrel;

TEST(FileUtilitiesTest, TheLastExtensionOfTheNameGivesTheType)
{
    // "tar.gz" as a whole names a compressed archive; the last extension alone names gzip data.
    const std::pair<const char*, const char*> cases[] = {
        {"report.pdf", "application/pdf"}, {"/some/dir.d/page.HTML", "text/html"},
        {"a.tar.gz", "application/gzip"},  {"notes.txt.pdf", "application/pdf"},
        {"README", "text/plain"},          {"x.qqqzz", "text/plain"},
        {"trailing.", "text/plain"},
    };
    for (const auto& [name, type] : cases)
        EXPECT_EQ(mimeTypeForFileName(QLatin1String(name)), QLatin1String(type)) << name;

    // A PDF named .txt stays text: only the name is consulted.
    EXPECT_EQ(
        mimeTypeForFileName(test::writeFile(test::makeTempDir() + QStringLiteral("/fake.txt"), "%PDF-1.4\n")),
        QStringLiteral("text/plain"));
}
