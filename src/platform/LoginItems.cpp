#include "platform/LoginItems.h"

#include "platform/LoginItemsAE.h"

namespace nimbrel {

namespace {

// Index of the first item that starts `appPath`, or -1.
qsizetype loginItemIndex(const QString& appPath)
{
    const QUrl url = loginItemURLForPath(appPath);
    std::unique_ptr<QVariantList> items;
    if (LIAECopyLoginItems(&items) != noErr)
        return -1;
    for (qsizetype i = 0; i < items->size(); ++i) {
        if (items->at(i).toMap().value(QStringLiteral("URL")).toUrl() == url)
            return i;
    }
    return -1;
}

} // namespace

bool startsAtLogin(const QString& appPath)
{
    return !appPath.isEmpty() && loginItemIndex(appPath) >= 0;
}

void setStartsAtLogin(bool wanted, const QString& appPath)
{
    if (appPath.isEmpty())
        return;
    const qsizetype index = loginItemIndex(appPath);
    if (wanted && index < 0)
        LIAEAddURLAtEnd(loginItemURLForPath(appPath), false);
    else if (!wanted && index >= 0)
        LIAERemove(index);
}

} // namespace nimbrel
