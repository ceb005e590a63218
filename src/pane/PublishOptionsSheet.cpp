// ComQuorviaNimbrelPref: the publish options sheet — a calendar's read and read & write passwords and
// its read-only flag, edited in the pane's copy and handed to the row only on OK.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_PublishOptionsSheet.h"

#include <QDialog>
#include <QPushButton>

namespace nimbrel {

QDialog* ComQuorviaNimbrelPref::loadPublishOptionsSheet()
{
    auto* sheet = new QDialog(m_window);
    Ui::PublishOptionsSheet ui;
    ui.setupUi(sheet);
    QFont heading = ui.publishOptionsTitle->font();
    heading.setBold(true);
    ui.publishOptionsTitle->setFont(heading);
    m_binder.bindText(ui.publishOptionsTitle, QStringLiteral("publishOptions.title"),
                      [this] { return m_publishOptionsDict.value(QStringLiteral("title")).toString(); });
    bindField(ui.readPasswordField, QStringLiteral("publishOptions.readPassword"));
    bindField(ui.writePasswordField, QStringLiteral("publishOptions.writePassword"));
    m_binder.bindText(ui.readAccessSummary, QStringLiteral("publishOptionsReadAccessSummary"),
                      [this] { return publishOptionsReadAccessSummary(); });
    m_binder.bindText(ui.writeAccessSummary, QStringLiteral("publishOptionsWriteAccessSummary"),
                      [this] { return publishOptionsWriteAccessSummary(); });
    bindBox(ui.readOnlyCheckbox, QStringLiteral("publishOptions.readOnly"));
    connectSheetButtons(sheet, &ComQuorviaNimbrelPref::publishOptionsSheetButton);
    localizeTexts(sheet);
    return sheet;
}

void ComQuorviaNimbrelPref::publishOptionsSheetButton(QObject* sender)
{
    endSheet(m_publishOptionsSheet, tagOf(sender));
}

void ComQuorviaNimbrelPref::publishOptionsSheetDidEnd(int returnCode)
{
    if (returnCode == 1) {
        if (const CalendarRef calendar =
                m_com->calendarWithDict(m_publishOptionsDict, *m_com->calendarsPublishableViaBonjour())) {
            calendar->setPublishOptions(m_publishOptionsDict);
            calendar->autoPublishToBonjour();
        }
    }
    if (m_publishOptionsSheet)
        m_publishOptionsSheet->hide();
}

void ComQuorviaNimbrelPref::connectSheetButtons(QDialog* sheet,
                                                void (ComQuorviaNimbrelPref::*action)(QObject*))
{
    // Every button with a tag ends the sheet with it; others (help) are connected where they are made.
    for (QPushButton* button : sheet->findChildren<QPushButton*>()) {
        if (button->property("tag").isValid() && !button->objectName().endsWith(QLatin1String("HelpButton")))
            QObject::connect(button, &QPushButton::clicked, this,
                             [this, action, button] { (this->*action)(button); });
    }
}

} // namespace nimbrel
