// ComQuorviaNimbrelPref: the remote server sheet — add a server, change its settings or disconnect it
// (asking first when calendars of it are subscribed).

#include "pane/CalendarItemModel.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/ItemViews.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_ServerSettingsSheet.h"

#include <QComboBox>
#include <QDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QTreeView>
#include <QUrl>

namespace nimbrel {

namespace {

// What the background application can subscribe to: an http or https address naming a server.
bool isServerAddress(const QString& text)
{
    const QUrl url(text.trimmed(), QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    return url.isValid() && (scheme == QLatin1String("https") || scheme == QLatin1String("http")) &&
           !url.host().isEmpty();
}

} // namespace

QDialog* ComQuorviaNimbrelPref::loadServerSettingsSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::ServerSettingsSheet ui;
    ui.setupUi(sheet);
    bindField(ui.serverTitleField, QStringLiteral("serverSettings.title"));
    bindField(ui.serverURLField, QStringLiteral("serverSettings.remoteURL"));
    bindField(ui.serverLoginField, QStringLiteral("serverSettings.remoteLogin"));
    bindField(ui.serverPasswordField, QStringLiteral("serverSettings.remotePassword"));
    addSyncIntervalChoices(ui.serverIntervalChoice);
    bindChoice(ui.serverIntervalChoice, QStringLiteral("serverSettings.syncInterval"));
    bindBox(ui.serverSSLCheckbox, QStringLiteral("serverSettings.remoteSSL"));

    // A server needs an address it can be reached at; an existing one can be disconnected.
    const auto address = [this] {
        return m_serverSettingsDict.value(QStringLiteral("remoteURL")).toString();
    };
    m_binder.bindEnabled(ui.serverSettingsOKButton, QStringLiteral("serverSettings.remoteURL"),
                         [address] { return isServerAddress(address()); });
    m_binder.bindProperty(
        ui.serverURLError, "visible", QStringLiteral("serverSettings.remoteURL"),
        [address] { return !address().trimmed().isEmpty() && !isServerAddress(address()); });
    const auto existing = [this] { return m_serverSettingsDict.contains(QStringLiteral("uid")); };
    m_binder.bindProperty(ui.serverDisconnectButton, "visible", QStringLiteral("serverSettings"), existing);
    m_binder.bindProperty(sheet, "windowTitle", QStringLiteral("serverSettings"), [existing] {
        return localizedString(existing() ? QStringLiteral("Edit Remote Server")
                                          : QStringLiteral("Add Remote Server"));
    });
    connectSheetButtons(sheet, &ComQuorviaNimbrelPref::serverSettingsSheetButton);
    localizeTexts(sheet);
    return sheet;
}

void ComQuorviaNimbrelPref::addServerButton(QObject*)
{
    const NimbrelCalendar* selected =
        m_subscribeController ? m_subscribeController->calendarAt(firstSelectedIndex(m_subscribeOutlineView))
                              : nullptr;
    if (selected && !selected->isLeaf())
        editServerSettings(selected->dict());
    else
        editServerSettings({{QStringLiteral("syncInterval"), qint64(1)}});
}

void ComQuorviaNimbrelPref::editServerSettings(const QVariantMap& settings)
{
    willChangeValueForKey(QStringLiteral("serverSettings"));
    m_serverSettingsDict = settings;
    didChangeValueForKey(QStringLiteral("serverSettings"));
    beginSheet(m_serverSettingsSheet, m_window, this, [this](int code) { serverSettingsSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::serverSettingsSheetButton(QObject* sender)
{
    endSheet(m_serverSettingsSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::serverSettingsSheetDidEnd(int returnCode)
{
    if (returnCode == 1) {
        m_com->setServerOptions(m_serverSettingsDict);
    } else if (returnCode != 0) {
        // Disconnecting a server whose calendars are subscribed is confirmed first.
        if (boolValue(m_serverSettingsDict, QStringLiteral("hasSubscriptions")) &&
            !m_serverSettingsDict.contains(QStringLiteral("bonjourURL"))) {
            if (m_serverSettingsSheet)
                m_serverSettingsSheet->hide();
            beginAlertSheet(
                m_window, this,
                {localizedString(QStringLiteral("DisconnectAlertTitle")),
                 localizedString(QStringLiteral("DisconnectAlertDefaultButton")),
                 localizedString(QStringLiteral("DisconnectAlertAlternateButton")),
                 localizedFormat(QStringLiteral("DisconnectAlertMsg"),
                                 {m_serverSettingsDict.value(QStringLiteral("title")).toString()})},
                [this](int code) { disconnectButtonEnd(code); });
        } else {
            doDisconnect();
        }
    }
    if (m_serverSettingsSheet)
        m_serverSettingsSheet->hide();
}

void ComQuorviaNimbrelPref::disconnectButtonEnd(int returnCode)
{
    if (returnCode == kAlertDefaultReturn)
        doDisconnect();
}

void ComQuorviaNimbrelPref::doDisconnect()
{
    m_com->disconnectServer(m_serverSettingsDict);
    setSelectionIndexPath({});
}

} // namespace nimbrel
