// ComQuorviaNimbrelPref: the Google settings sheet — set up the account, change its settings or
// disconnect it (asking first when calendars are published to it or subscribed from it).

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_GoogleSettingsSheet.h"

#include <QComboBox>
#include <QDialog>
#include <QPushButton>

namespace nimbrel {

namespace {

const QString kSyncOptions = QStringLiteral("syncOptions");

// The settings of an account that does not exist yet.
QVariantMap newAccountDefaults()
{
    return {{QStringLiteral("syncInterval"), qint64(2)},
            {QStringLiteral("remoteSSL"), true},
            {kSyncOptions,
             QVariantMap{{QStringLiteral("dateLimit"), true}, {QStringLiteral("dateLimitRange"), qint64(0)}}},
            {QStringLiteral("newGoogleService"), true}};
}

} // namespace

QDialog* ComQuorviaNimbrelPref::loadGoogleSettingsSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::GoogleSettingsSheet ui;
    ui.setupUi(sheet);
    bindField(ui.googleLoginField, QStringLiteral("googleSettings.remoteLogin"));
    bindField(ui.googlePasswordField, QStringLiteral("googleSettings.remotePassword"));
    addSyncIntervalChoices(ui.googleIntervalChoice);
    bindChoice(ui.googleIntervalChoice, QStringLiteral("googleSettings.syncInterval"));
    bindBox(ui.googleSSLCheckbox, QStringLiteral("googleSettings.remoteSSL"));
    // The date range, in the sheet's own copy of "syncOptions".
    bindBox(ui.dateLimitCheckbox, QStringLiteral("googleSettings.syncOptions.dateLimit"));
    const char* const ranges[] = {"1 month", "3 months", "6 months", "1 year"};
    for (int value = 0; value < 4; ++value)
        ui.dateLimitRangeChoice->addItem(localizedString(QLatin1String(ranges[value])), qint64(value));
    bindChoice(ui.dateLimitRangeChoice, QStringLiteral("googleSettings.syncOptions.dateLimitRange"));
    m_binder.bindEnabled(
        ui.dateLimitRangeChoice, QStringLiteral("googleSettings.syncOptions.dateLimit"), [this] {
            return boolValue(valueForKeyPath(QStringLiteral("googleSettings.syncOptions.dateLimit")));
        });

    // An account needs its name; only an existing one can be disconnected.
    m_binder.bindEnabled(ui.googleSettingsOKButton, QStringLiteral("googleSettings.remoteLogin"), [this] {
        return !m_googleSettingsDict.value(QStringLiteral("remoteLogin")).toString().trimmed().isEmpty();
    });
    m_binder.bindProperty(ui.googleDisconnectButton, "visible", QStringLiteral("googleSettings"), [this] {
        return !boolValue(m_googleSettingsDict, QStringLiteral("newGoogleService"));
    });
    connectSheetButtons(sheet, &ComQuorviaNimbrelPref::googleSettingsSheetButton);
    localizeTexts(sheet);
    return sheet;
}

void ComQuorviaNimbrelPref::googleOptionsButton(QObject*)
{
    const CalendarRef source = googleSource();
    const QVariantMap settings = source ? source->dict() : newAccountDefaults();
    willChangeValueForKey(QStringLiteral("googleSettings"));
    m_googleSettingsDict = settings;
    // The sheet edits its own "syncOptions", never the row's.
    m_googleSettingsDict.insert(kSyncOptions, settings.value(kSyncOptions).toMap());
    didChangeValueForKey(QStringLiteral("googleSettings"));
    beginSheet(m_googleSettingsSheet, m_window, this, [this](int code) { googleSettingsSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::googleSettingsSheetButton(QObject* sender)
{
    endSheet(m_googleSettingsSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::googleSettingsSheetDidEnd(int returnCode)
{
    if (returnCode == 1) {
        m_com->setGoogleOptions(m_googleSettingsDict);
    } else if (returnCode != 0) {
        if (!boolValue(m_googleSettingsDict, QStringLiteral("hasSubscriptions")) &&
            !boolValue(m_googleSettingsDict, QStringLiteral("hasPublishing"))) {
            doGoogleDisconnect();
        } else {
            if (m_googleSettingsSheet)
                m_googleSettingsSheet->hide();
            beginAlertSheet(
                m_window, this,
                {localizedString(QStringLiteral("DisconnectGoogleAlertTitle")),
                 localizedString(QStringLiteral("DisconnectGoogleAlertDefaultButton")),
                 localizedString(QStringLiteral("DisconnectGoogleAlertAlternateButton")),
                 localizedFormat(QStringLiteral("DisconnectGoogleAlertMsg"),
                                 {m_googleSettingsDict.value(QStringLiteral("title")).toString()})},
                [this](int code) { googleDisconnectButtonEnd(code); });
        }
    }
    if (m_googleSettingsSheet)
        m_googleSettingsSheet->hide();
}

void ComQuorviaNimbrelPref::googleDisconnectButtonEnd(int returnCode)
{
    if (returnCode == kAlertDefaultReturn)
        doGoogleDisconnect();
}

void ComQuorviaNimbrelPref::doGoogleDisconnect()
{
    setEnabledIfLoaded(m_googleSettingsButton, false);
    m_com->disconnectGoogle(m_googleSettingsDict);
}

} // namespace nimbrel
