#pragma once

#include <QString>

namespace nimbrel {

// The MIME type for a file name's extension: "text/plain" when no type can be found for it, a null
// string when the type found has no MIME name.
QString mimeTypeForFileName(const QString& fileName);

} // namespace nimbrel
