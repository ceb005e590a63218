// ComQuorviaNimbrelPref: the subscription tab. Its outline, sheets and actions come with the calendar
// tabs; here are its outlets (the outline and its column) and the link's callbacks.

#include "cells/SourceTableColumn.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "ui_SubscribeTab.h"

#include <QStandardItemModel>
#include <QTreeView>

namespace nimbrel {

QWidget* ComQuorviaNimbrelPref::loadSubscribeTab()
{
    auto* tab = new QWidget;
    Ui::SubscribeTab ui;
    ui.setupUi(tab);
    m_subscribeOutlineView = ui.subscribeOutlineView;
    m_subscribeController = new QStandardItemModel(0, 1, m_subscribeOutlineView);
    m_subscribeOutlineView->setModel(m_subscribeController);
    m_sourceColumn = new SourceTableColumn(m_subscribeOutlineView);
    m_subscribeOutlineView->setItemDelegateForColumn(0, m_sourceColumn);
    return tab;
}

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::subscribeCalendars()
{
    return m_com->sourceListOfBonjourCalendars();
}

void ComQuorviaNimbrelPref::subscribeOptionsButton(QObject* sender)
{
    // Opens the subscription options of the selected calendar once the outline has its model.
    Q_UNUSED(sender);
}

void ComQuorviaNimbrelPref::subscribeCheckbox(const QModelIndex& row)
{
    // Ticks the clicked calendar once the outline has its model.
    Q_UNUSED(row);
}

void ComQuorviaNimbrelPref::nimbrelSubscribingToCalendar(const QVariantMap& calendar)
{
    // Only a calendar everybody may read but nobody may write asks for a password.
    const bool readable = calendar.value(QStringLiteral("readableByAnyone")).toBool();
    const bool writable = calendar.value(QStringLiteral("writableByAnyone")).toBool();
    if (!readable || writable)
        return;
    willChangeValueForKey(QStringLiteral("subscribeOptions"));
    m_subscribeOptionsDict = calendar;
    didChangeValueForKey(QStringLiteral("subscribeOptions"));
}

void ComQuorviaNimbrelPref::nimbrelSubscribedCalendarsChanged()
{
    static const char* const keys[] = {"subscribeCalendars", "subscribeToGoogle", "googleAccount",
                                       "googleLastSync"};
    for (const char* key : keys)
        willChangeValueForKey(QLatin1String(key));
    for (const char* key : keys)
        didChangeValueForKey(QLatin1String(key));
}

} // namespace nimbrel
