// ComQuorviaNimbrelPref: the Google tab — the account and its last sync, the local calendars published
// to it and its calendars to subscribe to, sync now, and the progress of a running sync.

#include "pane/CalendarItemModel.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "ui_GoogleTab.h"

#include <QHeaderView>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTableView>

namespace nimbrel {

namespace {
const QString kPublishedToGoogle = QStringLiteral("publishedToGoogle");
const QString kSubscribedTo = QStringLiteral("subscribedTo");
const QString kSubscribable = QStringLiteral("subscribable");

CalendarItemModel::Column checkboxColumn(const QString& key)
{
    return {[](const NimbrelCalendar& row) { return row.title().toString(); }, key,
            [](const NimbrelCalendar& row) { return boolValue(row.record(), kSubscribable); }};
}
} // namespace

QWidget* ComQuorviaNimbrelPref::loadGoogleTab()
{
    auto* tab = new QWidget;
    Ui::GoogleTab ui;
    ui.setupUi(tab);
    m_publishGoogleController = new CalendarItemModel(
        *this, QStringLiteral("publishToGoogle"), [this] { return *publishToGoogle(); },
        {checkboxColumn(kPublishedToGoogle)}, false, ui.publishGoogleTableView);
    m_publishGoogleController->setToggle([this](const QModelIndex& row) { publishGoogleCheckbox(row); });
    m_subscribeGoogleController = new CalendarItemModel(
        *this, QStringLiteral("subscribeToGoogle"), [this] { return subscribeToGoogle(); },
        {checkboxColumn(kSubscribedTo)}, false, ui.subscribeGoogleTableView);
    m_subscribeGoogleController->setToggle([this](const QModelIndex& row) { subscribeGoogleCheckbox(row); });
    ui.publishGoogleTableView->setModel(m_publishGoogleController);
    ui.subscribeGoogleTableView->setModel(m_subscribeGoogleController);
    for (QTableView* table : {ui.publishGoogleTableView, ui.subscribeGoogleTableView}) {
        table->horizontalHeader()->hide();
        table->verticalHeader()->hide();
        table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
        table->horizontalHeader()->setStretchLastSection(true);
    }
    m_publishGoogleColumn = {ui.publishGoogleTableView, 0};
    m_subscribeGoogleColumn = {ui.subscribeGoogleTableView, 0};
    m_googleSettingsButton = ui.googleSettingsButton;
    m_googleSyncIndicator = ui.googleSyncIndicator;

    m_binder.bindText(ui.googleAccountField, QStringLiteral("googleAccount"), [this] {
        const QVariant account = googleAccount();
        return account.isValid() ? account.toString() : localizedString(QStringLiteral("No account set up"));
    });
    m_binder.bindText(ui.googleLastSyncField, QStringLiteral("googleLastSync"), [this] {
        const QVariant lastSync = googleLastSync();
        return lastSync.isValid() ? lastSync.toString() : localizedString(QStringLiteral("Not yet"));
    });
    m_binder.bindTitle(ui.googleSettingsButton, QStringLiteral("googleAccount"), [this] {
        return localizedString(googleAccount().isValid() ? QStringLiteral("Account Settings...")
                                                         : QStringLiteral("Set Up Account..."));
    });
    m_binder.bindEnabled(ui.googleSyncNowButton, QStringLiteral("googleAccount"),
                         [this] { return googleAccount().isValid(); });
    QObject::connect(ui.googleSettingsButton, &QPushButton::clicked, this,
                     [this, button = ui.googleSettingsButton] { googleOptionsButton(button); });
    QObject::connect(ui.googleSyncNowButton, &QPushButton::clicked, this,
                     [this, button = ui.googleSyncNowButton] { googleSyncNowButton(button); });
    m_googleSettingsSheet = loadGoogleSettingsSheet();
    return tab;
}

// ---- Bound values --------------------------------------------------------------------------------

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::publishToGoogle()
{
    return m_com->calendarsPublishableToGoogle();
}

CalendarRef ComQuorviaNimbrelPref::googleSource()
{
    const std::shared_ptr<CalendarList> sources = m_com->sourceListOfGoogleCalendars();
    return sources->isEmpty() ? nullptr : sources->first();
}

CalendarList ComQuorviaNimbrelPref::subscribeToGoogle()
{
    const CalendarRef source = googleSource();
    return source && source->children() ? *source->children() : CalendarList();
}

QVariant ComQuorviaNimbrelPref::googleAccount()
{
    const CalendarRef source = googleSource();
    return source ? source->record().value(QStringLiteral("remoteLogin")) : QVariant();
}

QVariant ComQuorviaNimbrelPref::googleLastSync()
{
    const CalendarRef source = googleSource();
    const QString text = source ? source->lastSyncAsString() : QString();
    return text.isNull() ? QVariant() : QVariant(text);
}

// ---- The two tables --------------------------------------------------------------------------------

void ComQuorviaNimbrelPref::publishGoogleCheckbox(const QModelIndex& row)
{
    if (const CalendarRef calendar = m_publishGoogleController->calendarRefAt(row.siblingAtColumn(0)))
        calendar->setPublishedToGoogle(!boolValue(calendar->record(), kPublishedToGoogle));
}

void ComQuorviaNimbrelPref::subscribeGoogleCheckbox(const QModelIndex& row)
{
    if (const CalendarRef calendar = m_subscribeGoogleController->calendarRefAt(row.siblingAtColumn(0)))
        calendar->setSubscribedTo(!boolValue(calendar->record(), kSubscribedTo));
}

void ComQuorviaNimbrelPref::tableViewWillDisplayCell(const ColumnOutlet& column, QStyleOptionViewItem& option,
                                                     int row)
{
    const bool publish =
        column.view == m_publishGoogleColumn.view && column.column == m_publishGoogleColumn.column;
    CalendarItemModel* controller = publish ? m_publishGoogleController : m_subscribeGoogleController;
    const NimbrelCalendar* calendar =
        controller ? controller->calendarAt(controller->index(row, 0)) : nullptr;
    if (!calendar)
        return;
    const QVariant title = calendar->title();
    option.text = title.isValid() ? title.toString() : QStringLiteral("(null)");
    option.checkState = boolValue(calendar->record(), publish ? kPublishedToGoogle : kSubscribedTo)
                            ? Qt::Checked
                            : Qt::Unchecked;
    // Not subscribable: not to be ticked for publishing to Google either.
    option.state.setFlag(QStyle::State_Enabled, boolValue(calendar->record(), kSubscribable));
}

// ---- Sync --------------------------------------------------------------------------------------------

void ComQuorviaNimbrelPref::googleSyncNowButton(QObject*)
{
    // The background application syncs when it is given the account's options.
    const CalendarRef source = googleSource();
    if (source && source->record().size() > 0)
        m_com->setGoogleOptions(source->dict());
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
