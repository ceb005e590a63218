// ComQuorviaNimbrelPref: the welcome sheet of the first launch and its sign-up request.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/PrefPaneUtilities.h"
#include "ui_WelcomeSheet.h"

#include <QDialog>
#include <QPushButton>

namespace nimbrel {

QDialog* ComQuorviaNimbrelPref::loadWelcomeSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::WelcomeSheet ui;
    ui.setupUi(sheet);
    QFont title = ui.welcomeTitle->font();
    title.setBold(true);
    title.setPointSizeF(title.pointSizeF() * 1.2);
    ui.welcomeTitle->setFont(title);
    m_welcomeIndicator = ui.welcomeIndicator;
    for (QPushButton* button : {ui.notNowButton, ui.signUpButton})
        QObject::connect(button, &QPushButton::clicked, this, [this, button] { welcomeSheetButton(button); });
    m_binder.bindLineEdit(
        ui.emailField, QStringLiteral("welcome"),
        [this] { return m_welcomeDict.value(QStringLiteral("email")).toString(); },
        [this](const QString& text) { setValueForKeyPath(QStringLiteral("welcome.email"), text); });
    return sheet;
}

void ComQuorviaNimbrelPref::showWelcomeSheet()
{
    willChangeValueForKey(QStringLiteral("welcome"));
    m_welcomeDict.insert(QStringLiteral("email"), PrefPaneUtilities::userEmail());
    didChangeValueForKey(QStringLiteral("welcome"));
    beginSheet(m_welcomeSheet, m_window, this, [this](int code) { welcomeSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::welcomeSheetButton(QObject* sender)
{
    endSheet(m_welcomeSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::welcomeSheetDidEnd(int returnCode)
{
    const QString email = m_welcomeDict.value(QStringLiteral("email")).toString();
    if (returnCode == 1 && !email.isEmpty()) {
        // The address goes as it stands after the sign-up prefix; the answer is ignored.
        const QString prefix = m_bundle.objectForInfoDictionaryKey(QStringLiteral("SignupURL")).toString();
        m_services.fetchUrl(prefix + email);
    }
    if (m_welcomeSheet)
        m_welcomeSheet->hide();
}

} // namespace nimbrel
