// ComQuorviaNimbrelPref: the Google tab. Its tables, sheet and actions come with the calendar tabs;
// here are its outlets and the sync progress callback.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "ui_GoogleTab.h"

#include <QHeaderView>
#include <QProgressBar>
#include <QPushButton>
#include <QStandardItemModel>
#include <QTableView>

namespace nimbrel {

QWidget* ComQuorviaNimbrelPref::loadGoogleTab()
{
    auto* tab = new QWidget;
    Ui::GoogleTab ui;
    ui.setupUi(tab);
    m_publishGoogleController = new QStandardItemModel(0, 1, ui.publishGoogleTableView);
    ui.publishGoogleTableView->setModel(m_publishGoogleController);
    m_subscribeGoogleController = new QStandardItemModel(0, 1, ui.subscribeGoogleTableView);
    ui.subscribeGoogleTableView->setModel(m_subscribeGoogleController);
    for (QTableView* table : {ui.publishGoogleTableView, ui.subscribeGoogleTableView}) {
        table->horizontalHeader()->hide();
        table->verticalHeader()->hide();
        table->horizontalHeader()->setStretchLastSection(true);
    }
    m_publishGoogleColumn = {ui.publishGoogleTableView, 0};
    m_subscribeGoogleColumn = {ui.subscribeGoogleTableView, 0};
    m_googleSettingsButton = ui.googleSettingsButton;
    m_googleSyncIndicator = ui.googleSyncIndicator;
    return tab;
}

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::publishToGoogle()
{
    return m_com->calendarsPublishableToGoogle();
}

void ComQuorviaNimbrelPref::publishGoogleCheckbox(const QModelIndex& row)
{
    // Ticks the clicked calendar once the table has its model.
    Q_UNUSED(row);
}

void ComQuorviaNimbrelPref::subscribeGoogleCheckbox(const QModelIndex& row)
{
    Q_UNUSED(row);
}

void ComQuorviaNimbrelPref::nimbrelGoogleSyncProgress(bool inProgress)
{
    if (inProgress != m_googleSyncInProgress) {
        if (inProgress)
            startAnimation(m_googleSyncIndicator);
        else
            stopAnimation(m_googleSyncIndicator);
        m_googleSyncInProgress = inProgress;
    }
    if (!m_googleSyncInProgress)
        setEnabledIfLoaded(m_googleSettingsButton, true);
}

} // namespace nimbrel
