// ComQuorviaNimbrelPref: the publishing tab and the network settings. The tab's table, sheets and
// most actions come with the calendar tabs; here are its outlets, the network settings copy that
// every selection refreshes, and the link's callbacks the spine relies on.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "ui_PublishTab.h"

#include <QHeaderView>
#include <QProgressBar>
#include <QPushButton>
#include <QStandardItemModel>
#include <QTableView>

namespace nimbrel {

QWidget* ComQuorviaNimbrelPref::loadPublishTab()
{
    auto* tab = new QWidget;
    Ui::PublishTab ui;
    ui.setupUi(tab);
    m_publishTableView = ui.publishTableView;
    // The table's item model arrives with the tab's own work; until then an empty one.
    m_publishController = new QStandardItemModel(0, 2, m_publishTableView);
    m_publishTableView->setModel(m_publishController);
    m_publishTableView->horizontalHeader()->hide();
    m_publishTableView->verticalHeader()->hide();
    m_setButton = ui.setButton;
    m_setIndicator = ui.setIndicator;
    m_binder.bindLineEdit(
        ui.bonjourNameField, QStringLiteral("networkSettings"),
        [this] { return m_networkSettingsDict.value(QStringLiteral("bonjourName")).toString(); },
        [this](const QString& name) {
            setValueForKeyPath(QStringLiteral("networkSettings.bonjourName"), name);
        });
    return tab;
}

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::publishCalendars()
{
    return m_com->calendarsPublishableViaBonjour();
}

void ComQuorviaNimbrelPref::publishOptionsButton(QObject* sender)
{
    // Opens the publish options of the selected calendar once the table has its model.
    Q_UNUSED(sender);
}

void ComQuorviaNimbrelPref::updateNetworkSettings(const std::optional<QVariantMap>& info)
{
    willChangeValueForKey(QStringLiteral("networkSettings"));
    m_networkSettingsDict = info.value_or(QVariantMap());
    const QString portNumber = QStringLiteral("portNumber");
    const bool fixedPort = m_networkSettingsDict.value(portNumber).toLongLong() != 0;
    m_networkSettingsDict.insert(QStringLiteral("portType"), fixedPort ? 1 : 0);
    if (!fixedPort)
        m_networkSettingsDict.remove(portNumber);
    didChangeValueForKey(QStringLiteral("networkSettings"));
}

void ComQuorviaNimbrelPref::nimbrelBonjourNamePublished()
{
    setEnabledIfLoaded(m_setButton, true);
    stopAnimation(m_setIndicator);
    updateNetworkSettings(m_com->bonjourInfo());
}

void ComQuorviaNimbrelPref::nimbrelPublishingCalendar(const QVariantMap& calendar)
{
    // The options sheet opens with the calendar's record; the sheet itself comes with the tab.
    willChangeValueForKey(QStringLiteral("publishOptions"));
    m_publishOptionsDict = calendar;
    didChangeValueForKey(QStringLiteral("publishOptions"));
}

void ComQuorviaNimbrelPref::nimbrelPublishedCalendarsChanged()
{
    for (const char* key : {"publishCalendars", "publishToGoogle"})
        willChangeValueForKey(QLatin1String(key));
    for (const char* key : {"publishCalendars", "publishToGoogle"})
        didChangeValueForKey(QLatin1String(key));
}

} // namespace nimbrel
