// ComQuorviaNimbrelPref: the subscribe options sheet — the password a subscription gives and what it
// leaves out, edited in the pane's copy and handed to the row only on OK.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "ui_SubscribeOptionsSheet.h"

#include <QDialog>

namespace nimbrel {

QDialog* ComQuorviaNimbrelPref::loadSubscribeOptionsSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::SubscribeOptionsSheet ui;
    ui.setupUi(sheet);
    QFont heading = ui.subscribeOptionsTitle->font();
    heading.setBold(true);
    ui.subscribeOptionsTitle->setFont(heading);
    m_binder.bindText(ui.subscribeOptionsTitle, QStringLiteral("subscribeOptions.title"),
                      [this] { return m_subscribeOptionsDict.value(QStringLiteral("title")).toString(); });
    bindField(ui.subscribePasswordField, QStringLiteral("subscribeOptions.subscribePassword"));
    m_binder.bindText(ui.subscribeAccessSummary, QStringLiteral("subscribeOptionsAccessSummary"),
                      [this] { return subscribeOptionsAccessSummary(); });
    bindBox(ui.filterRemindersCheckbox, QStringLiteral("subscribeOptions.filterReminders"));
    bindBox(ui.filterToDosCheckbox, QStringLiteral("subscribeOptions.filterToDos"));
    bindBox(ui.filterAttachmentsCheckbox, QStringLiteral("subscribeOptions.filterAttachments"));
    connectSheetButtons(sheet, &ComQuorviaNimbrelPref::subscribeOptionsSheetButton);
    localizeTexts(sheet);
    return sheet;
}

void ComQuorviaNimbrelPref::subscribeToCalendar(const QVariantMap& calendar)
{
    willChangeValueForKey(QStringLiteral("subscribeOptions"));
    m_subscribeOptionsDict = calendar;
    didChangeValueForKey(QStringLiteral("subscribeOptions"));
    beginSheet(m_subscribeOptionsSheet, m_window, this,
               [this](int code) { subscribeOptionsSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::subscribeOptionsSheetButton(QObject* sender)
{
    endSheet(m_subscribeOptionsSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::subscribeOptionsSheetDidEnd(int returnCode)
{
    if (returnCode == 1) {
        if (const CalendarRef calendar =
                m_com->calendarWithDict(m_subscribeOptionsDict, *m_com->sourceListOfBonjourCalendars())) {
            calendar->setSubscribeOptions(m_subscribeOptionsDict);
            calendar->autoSubscribeTo();
        }
    }
    if (m_subscribeOptionsSheet)
        m_subscribeOptionsSheet->hide();
}

} // namespace nimbrel
