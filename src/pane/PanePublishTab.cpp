// ComQuorviaNimbrelPref: the publishing tab. The table of local calendars with their publish
// checkbox and access summary, the options of the selected calendar, the computer's network name and
// the network settings copy that every selection refreshes.

#include "cells/SourceButtonCell.h"
#include "pane/CalendarItemModel.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/ItemViews.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_PublishTab.h"

#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTableView>

namespace nimbrel {

namespace {
const QString kPublishedToBonjour = QStringLiteral("publishedToBonjour");
const QString kSubscribable = QStringLiteral("subscribable");
constexpr int kBonjourNameMaxBytes = 63;
} // namespace

QWidget* ComQuorviaNimbrelPref::loadPublishTab()
{
    auto* tab = new QWidget;
    Ui::PublishTab ui;
    ui.setupUi(tab);
    m_publishTableView = ui.publishTableView;
    const QList<CalendarItemModel::Column> columns = {
        {[](const NimbrelCalendar& row) { return row.title().toString(); }, kPublishedToBonjour,
         [](const NimbrelCalendar& row) { return boolValue(row.record(), kSubscribable); }},
        {[](const NimbrelCalendar& row) { return row.publishOptions(); }, QString(), {}}};
    m_publishController = new CalendarItemModel(
        *this, QStringLiteral("publishCalendars"), [this] { return *publishCalendars(); }, columns, false,
        m_publishTableView);
    m_publishController->setHeaders({localizedString(QStringLiteral("Calendar")),
                                     localizedString(QStringLiteral("Who may read and write"))});
    m_publishController->setToggle([this](const QModelIndex& row) { publishCheckbox(row); });
    m_publishTableView->setModel(m_publishController);
    m_publishTableView->verticalHeader()->hide();
    m_publishTableView->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    m_publishTableView->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_publishTableView->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    m_publishTableView->horizontalHeader()->setHighlightSections(false);

    // The publish checkbox: the row's title beside it, enabled by the calendar's "subscribable".
    auto* checkbox = new SourceButtonCell(QString(), m_publishTableView);
    checkbox->setEditable(true);
    checkbox->setAction([this](const QModelIndex& row) { publishCheckbox(row); });
    checkbox->setWillDisplay([this](QStyleOptionViewItem& option, const QModelIndex& index) {
        const NimbrelCalendar* calendar = m_publishController->calendarAt(index);
        if (!calendar)
            return;
        const QVariant title = calendar->title();
        option.text = title.isValid() ? title.toString() : QStringLiteral("(null)");
        option.checkState = boolValue(calendar->record(), kPublishedToBonjour) ? Qt::Checked : Qt::Unchecked;
        option.state.setFlag(QStyle::State_Enabled, boolValue(calendar->record(), kSubscribable));
    });
    m_publishTableView->setItemDelegateForColumn(0, checkbox);
    // Keyboard: the current cell stays on the checkbox, Space ticks it, Return opens the options.
    QObject::connect(m_publishTableView->selectionModel(), &QItemSelectionModel::currentChanged, this,
                     [this](const QModelIndex& current) {
                         if (current.isValid() && current.column() != 0)
                             m_publishTableView->selectionModel()->setCurrentIndex(
                                 current.siblingAtColumn(0), QItemSelectionModel::NoUpdate);
                     });
    handleRowKeys(m_publishTableView, [this] { publishOptionsButton(m_publishTableView); });
    QObject::connect(m_publishTableView->selectionModel(), &QItemSelectionModel::selectionChanged, this,
                     [this] {
                         willChangeValueForKey(QStringLiteral("publishOptionsEnabled"));
                         didChangeValueForKey(QStringLiteral("publishOptionsEnabled"));
                     });

    m_setButton = ui.setButton;
    m_setIndicator = ui.setIndicator;
    m_binder.bindLineEdit(
        ui.bonjourNameField, QStringLiteral("networkSettings.bonjourName"),
        [this] { return m_networkSettingsDict.value(QStringLiteral("bonjourName")).toString(); },
        [this](const QString& name) {
            setValueForKeyPath(QStringLiteral("networkSettings.bonjourName"), name);
        });
    m_binder.bindEnabled(ui.publishOptionsButton, QStringLiteral("publishOptionsEnabled"),
                         [this] { return publishOptionsEnabled(); });
    QLineEdit* nameField = ui.bonjourNameField;
    QObject::connect(nameField, &QLineEdit::returnPressed, this, [this, nameField] {
        control(nameField, nameField, QByteArrayLiteral("insertNewline:"));
    });
    QObject::connect(ui.setButton, &QPushButton::clicked, this,
                     [this, button = ui.setButton] { setBonjourNameButton(button); });
    QObject::connect(ui.publishOptionsButton, &QPushButton::clicked, this,
                     [this, button = ui.publishOptionsButton] { publishOptionsButton(button); });
    QObject::connect(ui.networkSettingsButton, &QPushButton::clicked, this,
                     [this, button = ui.networkSettingsButton] { networkSettingsButton(button); });
    m_publishOptionsSheet = loadPublishOptionsSheet();
    m_networkSettingsSheet = loadNetworkSettingsSheet();
    return tab;
}

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::publishCalendars()
{
    return m_com->calendarsPublishableViaBonjour();
}

// ---- Options of the selected calendar ------------------------------------------------------------

QString ComQuorviaNimbrelPref::publishOptionsReadAccessSummary() const
{
    return localizedString(m_publishOptionsDict.value(QStringLiteral("readPassword")).toString().isEmpty()
                               ? QStringLiteral("Everyone has read access to this calendar.")
                               : QStringLiteral("This password allows read access to this calendar."));
}

QString ComQuorviaNimbrelPref::publishOptionsWriteAccessSummary() const
{
    const qsizetype r = m_publishOptionsDict.value(QStringLiteral("readPassword")).toString().size();
    const qsizetype w = m_publishOptionsDict.value(QStringLiteral("writePassword")).toString().size();
    // A read password without a write password closes writing to everyone.
    if (boolValue(m_publishOptionsDict, QStringLiteral("readOnly")) || (w == 0 && r > 0))
        return localizedString(QStringLiteral("No one has read & write access to this calendar."));
    if (w > 0)
        return localizedString(QStringLiteral("This password allows read & write access to this calendar."));
    return localizedString(QStringLiteral("Everyone has read & write access to this calendar."));
}

bool ComQuorviaNimbrelPref::publishOptionsEnabled() const
{
    const NimbrelCalendar* calendar =
        m_publishController ? m_publishController->calendarAt(firstSelectedIndex(m_publishTableView))
                            : nullptr;
    return calendar && boolValue(calendar->record(), kSubscribable);
}

void ComQuorviaNimbrelPref::publishOptionsButton(QObject*)
{
    const NimbrelCalendar* calendar =
        m_publishController ? m_publishController->calendarAt(firstSelectedIndex(m_publishTableView))
                            : nullptr;
    if (calendar && boolValue(calendar->record(), kSubscribable))
        publishingCalendar(calendar->dict());
}

void ComQuorviaNimbrelPref::publishingCalendar(const QVariantMap& calendar)
{
    willChangeValueForKey(QStringLiteral("publishOptions"));
    m_publishOptionsDict = calendar;
    didChangeValueForKey(QStringLiteral("publishOptions"));
    beginSheet(m_publishOptionsSheet, m_window, this, [this](int code) { publishOptionsSheetDidEnd(code); });
}

void ComQuorviaNimbrelPref::publishCheckbox(const QModelIndex& row)
{
    // What the column's binding does: the row takes the opposite value and sends the request.
    if (const CalendarRef calendar = m_publishController ? m_publishController->calendarRefAt(row) : nullptr)
        calendar->setPublishedToBonjour(!boolValue(calendar->record(), kPublishedToBonjour));
}

void ComQuorviaNimbrelPref::nimbrelPublishingCalendar(const QVariantMap& calendar)
{
    publishingCalendar(calendar);
}

// ---- Network name -------------------------------------------------------------------------------

void ComQuorviaNimbrelPref::setBonjourNameButton(QObject*)
{
    const QString name = m_networkSettingsDict.value(QStringLiteral("bonjourName")).toString();
    // The background application refuses these; say why here instead of sending them.
    const QByteArray bytes = name.toUtf8();
    if (name.trimmed().isEmpty() || bytes.size() > kBonjourNameMaxBytes) {
        beginAlertSheet(m_window, this,
                        {localizedString(QStringLiteral("This name cannot be used")),
                         localizedString(QStringLiteral("OK")), QString(),
                         localizedString(name.trimmed().isEmpty()
                                             ? QStringLiteral("Enter a name for this computer.")
                                             : QStringLiteral("The name is too long: at most 63 bytes "
                                                              "(letters with accents and other scripts "
                                                              "take two or more).")),
                         true},
                        {});
        return;
    }
    setEnabledIfLoaded(m_setButton, false);
    startAnimation(m_setIndicator);
    QVariantMap info = m_com->bonjourInfo().value_or(QVariantMap());
    info.insert(QStringLiteral("bonjourName"), name);
    m_com->setBonjourInfo(info);
}

bool ComQuorviaNimbrelPref::control(QObject*, QObject*, const QByteArray& command)
{
    if (command != "insertNewline:")
        return false;
    setBonjourNameButton(nullptr);
    return true;
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

// ---- Reload ---------------------------------------------------------------------------------------

void ComQuorviaNimbrelPref::nimbrelPublishedCalendarsChanged()
{
    // The selections survive by position, not by calendar.
    const int publishSelection = selectionIndex(m_publishTableView);
    const int googleSelection = selectionIndex(m_publishGoogleColumn.view);
    for (const char* key : {"publishCalendars", "publishToGoogle"})
        willChangeValueForKey(QLatin1String(key));
    for (const char* key : {"publishCalendars", "publishToGoogle"})
        didChangeValueForKey(QLatin1String(key));
    setSelectionIndex(m_publishTableView, publishSelection);
    setSelectionIndex(m_publishGoogleColumn.view, googleSelection);
}

} // namespace nimbrel
