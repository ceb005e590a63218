// ComQuorviaNimbrelPref: the network settings sheet — an automatic or a fixed port for the calendars
// this computer publishes. A fixed port must pass the port field's formatter before anything is sent.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_NetworkSettingsSheet.h"

#include <QDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QRegularExpressionValidator>

namespace nimbrel {

namespace {

const QString kPortType = QStringLiteral("portType");
const QString kPortNumber = QStringLiteral("portNumber");

// The port field's number formatter: whole numbers from 1024 (a program that is not run by the
// administrator cannot listen below) to 65535.
struct PortFormatter
{
    static constexpr int kMinimum = 1024;
    static constexpr int kMaximum = 65535;

    // getObjectValue:forString:range:error: over the whole string.
    static bool getObjectValue(const QString& string, int* value, QString* error)
    {
        bool ok = false;
        const qlonglong number = string.toLongLong(&ok);
        if (!ok) {
            *error = localizedFormat(QStringLiteral("“%@” is not a port number."), {string});
            return false;
        }
        if (number < kMinimum) {
            *error = localizedString(
                QStringLiteral("The port must be 1024 or higher: lower ports are reserved for the system."));
            return false;
        }
        if (number > kMaximum) {
            *error = localizedString(QStringLiteral("The port must be 65535 or lower."));
            return false;
        }
        *value = int(number);
        return true;
    }
};

} // namespace

QDialog* ComQuorviaNimbrelPref::loadNetworkSettingsSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::NetworkSettingsSheet ui;
    ui.setupUi(sheet);
    m_portField = ui.portField;
    // Digits only; the range is the formatter's to judge when the sheet ends.
    m_portField->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9]{0,5}")), m_portField));
    const auto portType = [this] { return m_networkSettingsDict.value(kPortType).toInt(); };
    m_binder.bindChecked(
        ui.automaticPortButton, QStringLiteral("networkSettings.portType"),
        [portType] { return portType() == 0; },
        [this](bool on) {
            if (on)
                setValueForKeyPath(QStringLiteral("networkSettings.portType"), 0);
        });
    m_binder.bindChecked(
        ui.fixedPortButton, QStringLiteral("networkSettings.portType"),
        [portType] { return portType() == 1; },
        [this](bool on) {
            if (on)
                setValueForKeyPath(QStringLiteral("networkSettings.portType"), 1);
        });
    m_binder.bindEnabled(m_portField, QStringLiteral("networkSettings.portType"),
                         [portType] { return portType() == 1; });
    m_binder.bindLineEdit(
        m_portField, QStringLiteral("networkSettings.portNumber"),
        [this] {
            const qlonglong port = m_networkSettingsDict.value(kPortNumber).toLongLong();
            return port ? QString::number(port) : QString();
        },
        [this](const QString& text) {
            setValueForKeyPath(QStringLiteral("networkSettings.portNumber"),
                               text.isEmpty() ? QVariant() : QVariant(text.toLongLong()));
        });
    connectSheetButtons(sheet, &ComQuorviaNimbrelPref::networkSettingsSheetButton);
    QObject::connect(ui.networkHelpButton, &QPushButton::clicked, this,
                     [this, help = ui.networkHelpButton] { helpButton(help); });
    localizeTexts(sheet);
    return sheet;
}

void ComQuorviaNimbrelPref::networkSettingsButton(QObject*)
{
    updateNetworkSettings(m_com->bonjourInfo());
    beginSheet(m_networkSettingsSheet, m_window, this,
               [this](int code) { networkSettingsSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::networkSettingsSheetButton(QObject* sender)
{
    endSheet(m_networkSettingsSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::networkSettingsSheetDidEnd(int returnCode)
{
    if (returnCode == 1) {
        // The field's integer value, as a number formatted with "%ld".
        const long port = m_portField ? m_portField->text().toLong() : 0;
        const int portType = m_networkSettingsDict.value(kPortType).toInt();
        if (portType == 1) {
            int checked = 0;
            QString error;
            if (!PortFormatter::getObjectValue(QString::number(port), &checked, &error)) {
                // Nothing is sent: the sheet comes back with the formatter's error over it.
                beginSheet(m_networkSettingsSheet, m_window, this,
                           [this](int code) { networkSettingsSheetDidEnd(code); });
                auto* alert =
                    new QMessageBox(QMessageBox::Warning, localizedString(QStringLiteral("Invalid port")),
                                    error, QMessageBox::Ok, m_networkSettingsSheet);
                alert->setObjectName(QStringLiteral("portError"));
                alert->setAttribute(Qt::WA_DeleteOnClose);
                alert->setWindowModality(Qt::WindowModal);
                alert->open();
                return;
            }
        }
        setEnabledIfLoaded(m_setButton, false);
        startAnimation(m_setIndicator);
        m_networkSettingsDict.insert(kPortNumber, portType != 0 ? qint64(port) : qint64(0));
        m_networkSettingsDict.remove(kPortType);
        m_com->setBonjourInfo(m_networkSettingsDict);
    }
    if (m_networkSettingsSheet)
        m_networkSettingsSheet->hide();
}

} // namespace nimbrel
