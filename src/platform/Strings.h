#pragma once

// User-visible texts come from the string table "NimbrelPref", keyed by their English text (or by a
// symbolic key such as "ResetAlertTitle" whose English text lives in the table). A missing key is
// answered by the key itself.

#include <QString>
#include <QStringList>

namespace nimbrel {

inline const QString kStringTable = QStringLiteral("NimbrelPref");

// The text for `key` in `table`.
QString localizedString(const QString& key, const QString& table = kStringTable);

// Fills the placeholders of a format taken from a string table: "%@" takes the next argument,
// "%N$@" the N-th (1-based), "%%" is a literal "%". Any other "%" stays as it is, arguments are
// inserted verbatim (a "%@" inside an argument is not expanded), and a placeholder without an
// argument becomes the empty string.
QString fillPlaceholders(const QString& format, const QStringList& arguments);

// localizedString(key) filled with the arguments.
QString localizedFormat(const QString& key, const QStringList& arguments);

} // namespace nimbrel
