#include "SharedSettings.h"

#include "logging/Log.h"
#include "platform/SettingsStore.h"

#include <QSet>

namespace nimbrel::background {

void noteCorruptSettings(const SettingsStore& shared)
{
    static QSet<QString> noted;
    const QString copy = shared.corruptCopyPath();
    if (copy.isEmpty() || noted.contains(copy))
        return;
    noted.insert(copy);
    Log(13, "The shared settings file %@ could not be read; it was kept as %@ and the settings start afresh",
        shared.path(), copy);
}

} // namespace nimbrel::background
