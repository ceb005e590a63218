// ComQuorviaNimbrelPref: the subscription tab. The outline of sources (computers found on the
// network, remote servers) with their calendars, its cells, which rows may be selected, the expanded
// state kept on the rows, the subscribe checkbox, and the reload that keeps the outline steady.

#include "cells/SourceButtonCell.h"
#include "cells/SourceTableColumn.h"
#include "pane/CalendarItemModel.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/ItemViews.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/Strings.h"
#include "ui_SubscribeTab.h"

#include <QHeaderView>
#include <QPushButton>
#include <QTreeView>

namespace nimbrel {

namespace {
const QString kSubscribedTo = QStringLiteral("subscribedTo");
const QString kSubscribable = QStringLiteral("subscribable");
const QString kSubscribePassword = QStringLiteral("subscribePassword");
const QString kReadOnly = QStringLiteral("readOnly");
const QString kReadProtected = QStringLiteral("readProtected");
} // namespace

QWidget* ComQuorviaNimbrelPref::loadSubscribeTab()
{
    auto* tab = new QWidget;
    Ui::SubscribeTab ui;
    ui.setupUi(tab);
    m_subscribeOutlineView = ui.subscribeOutlineView;
    // The outline column (its cells draw the title) and the row's summary beside it.
    const QList<CalendarItemModel::Column> columns = {
        {[](const NimbrelCalendar& row) { return row.title().toString(); }, kSubscribedTo,
         [](const NimbrelCalendar& row) { return boolValue(row.record(), kSubscribable); }},
        {[](const NimbrelCalendar& row) { return row.subscribeOptions(); }, QString(), {}}};
    m_subscribeController = new CalendarItemModel(
        *this, QStringLiteral("subscribeCalendars"), [this] { return *subscribeCalendars(); }, columns, true,
        m_subscribeOutlineView);
    m_subscribeController->setSelectable(
        [this](const NimbrelCalendar& node) { return outlineViewShouldSelectItem(node); });
    m_subscribeController->setToggle([this](const QModelIndex& row) { subscribeCheckbox(row); });
    m_subscribeOutlineView->setModel(m_subscribeController);
    m_subscribeOutlineView->header()->setStretchLastSection(false);
    m_subscribeOutlineView->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_subscribeOutlineView->header()->setSectionResizeMode(1, QHeaderView::Interactive);
    m_subscribeOutlineView->header()->resizeSection(1, 200);
    m_sourceColumn = new SourceTableColumn(m_subscribeOutlineView);
    m_subscribeOutlineView->setItemDelegateForColumn(0, m_sourceColumn);

    // The expanded state lives on the rows.
    QObject::connect(m_subscribeOutlineView, &QTreeView::expanded, this, [this](const QModelIndex& item) {
        if (NimbrelCalendar* node = m_subscribeController->calendarAt(item))
            outlineViewShouldExpandItem(*node);
    });
    QObject::connect(m_subscribeOutlineView, &QTreeView::collapsed, this, [this](const QModelIndex& item) {
        if (NimbrelCalendar* node = m_subscribeController->calendarAt(item))
            outlineViewShouldCollapseItem(*node);
    });
    handleRowKeys(m_subscribeOutlineView, [this] { subscribeOptionsButton(m_subscribeOutlineView); });

    m_binder.bindTitle(ui.addServerButton, QStringLiteral("addServerButtonName"),
                       [this] { return addServerButtonName(); });
    m_binder.bindEnabled(ui.subscribeOptionsButton, QStringLiteral("subscribeOptionsEnabled"),
                         [this] { return subscribeOptionsEnabled(); });
    QObject::connect(ui.addServerButton, &QPushButton::clicked, this,
                     [this, button = ui.addServerButton] { addServerButton(button); });
    QObject::connect(ui.subscribeOptionsButton, &QPushButton::clicked, this,
                     [this, button = ui.subscribeOptionsButton] { subscribeOptionsButton(button); });
    m_subscribeOptionsSheet = loadSubscribeOptionsSheet();
    m_serverSettingsSheet = loadServerSettingsSheet();
    return tab;
}

std::shared_ptr<CalendarList> ComQuorviaNimbrelPref::subscribeCalendars()
{
    return m_com->sourceListOfBonjourCalendars();
}

// ---- Bound values --------------------------------------------------------------------------------

QString ComQuorviaNimbrelPref::subscribeOptionsAccessSummary()
{
    QVariantMap& options = m_subscribeOptionsDict;
    const bool offline = sourceIsOffline(options);
    const bool changed = subscribePassIsChanged(options);
    if (changed && offline) {
        // Offline nothing can be checked: assume the new password opens everything, so it can be saved.
        options.insert(kReadOnly, false);
        options.insert(kReadProtected, false);
        return localizedString(
            QStringLiteral("The source computer is offline.  Read & write access will be assumed for now."));
    }
    const char* text = "You have read & write access to this calendar.";
    if (boolValue(options, kReadProtected))
        text = "Enter a read password or a read & write password to access this calendar.";
    else if (boolValue(options, QStringLiteral("readableByAnyone")) && boolValue(options, kReadOnly))
        text =
            "This calendar allows read access without a password.  If you want to modify it, enter a read & "
            "write password.";
    else if (boolValue(options, kReadOnly))
        text = "You have read access to this calendar.  If you want to modify it, enter a read & write "
               "password.";
    else if (boolValue(options, QStringLiteral("writableByAnyone")))
        text = "This calendar allows read & write access without a password.";
    return localizedString(QString::fromUtf8(text));
}

bool ComQuorviaNimbrelPref::subscribeOptionsEnabled() const
{
    const NimbrelCalendar* selected =
        m_subscribeController ? m_subscribeController->calendarAt(firstSelectedIndex(m_subscribeOutlineView))
                              : nullptr;
    return selected && selected->isLeaf();
}

QString ComQuorviaNimbrelPref::addServerButtonName() const
{
    const NimbrelCalendar* selected =
        m_subscribeController ? m_subscribeController->calendarAt(firstSelectedIndex(m_subscribeOutlineView))
                              : nullptr;
    return localizedString(selected && !selected->isLeaf() ? QStringLiteral("Edit Remote Server...")
                                                           : QStringLiteral("Add Remote Server..."));
}

// ---- The outline's delegate ----------------------------------------------------------------------

void ComQuorviaNimbrelPref::outlineViewWillDisplayCell(QStyledItemDelegate* cell,
                                                       QStyleOptionViewItem& option, const QModelIndex& item)
{
    const NimbrelCalendar* node = m_subscribeController ? m_subscribeController->calendarAt(item) : nullptr;
    if (!node || item.column() != 0)
        return;
    const QVariant title = node->title();
    const QString text = title.isValid() ? title.toString() : QStringLiteral("(null)");
    if (qobject_cast<SourceButtonCell*>(cell)) {
        option.text = text;
        option.checkState = boolValue(node->record(), kSubscribedTo) ? Qt::Checked : Qt::Unchecked;
        option.state.setFlag(QStyle::State_Enabled, boolValue(node->record(), kSubscribable));
    } else {
        option.text = text.toUpper();
    }
}

bool ComQuorviaNimbrelPref::outlineViewShouldSelectItem(const NimbrelCalendar& node) const
{
    // Calendars and remote servers; computers found on the network cannot be selected.
    return node.isLeaf() || node.isRemoteServer();
}

bool ComQuorviaNimbrelPref::outlineViewShouldExpandItem(NimbrelCalendar& node)
{
    node.setExpanded(true);
    return true;
}

bool ComQuorviaNimbrelPref::outlineViewShouldCollapseItem(NimbrelCalendar& node)
{
    node.setExpanded(false);
    return true;
}

// ---- Actions -------------------------------------------------------------------------------------

void ComQuorviaNimbrelPref::subscribeCheckbox(const QModelIndex& row)
{
    const CalendarRef node = m_subscribeController ? m_subscribeController->calendarRefAt(row) : nullptr;
    if (!node)
        return;
    setSelectionIndexPath(indexPathToObject(*node).value_or(QList<int>()));
    node->setSubscribedTo(!boolValue(node->record(), kSubscribedTo));
}

void ComQuorviaNimbrelPref::subscribeOptionsButton(QObject*)
{
    const NimbrelCalendar* selected =
        m_subscribeController ? m_subscribeController->calendarAt(firstSelectedIndex(m_subscribeOutlineView))
                              : nullptr;
    if (selected && selected->isLeaf() && boolValue(selected->record(), kSubscribable))
        subscribeToCalendar(selected->dict());
}

bool ComQuorviaNimbrelPref::sourceIsOffline(const QVariantMap& calendar)
{
    const CalendarRef source = m_com->sourceOfCalendarWithDict(calendar);
    return source && source->isOffline();
}

bool ComQuorviaNimbrelPref::subscribePassIsChanged(const QVariantMap& calendar)
{
    const CalendarRef stored =
        m_com->calendarWithDict(m_subscribeOptionsDict, *m_com->sourceListOfBonjourCalendars());
    const QVariant storedPassword = stored ? stored->record().value(kSubscribePassword) : QVariant();
    return !valuesEqual(storedPassword, calendar.value(kSubscribePassword));
}

namespace {

// Depth first: a row, then (when it has any) its calendars, before the next row. Rows without
// children of their own are never searched; the target is a row object, matched by identity.
std::optional<QList<int>> indexPathFrom(const std::optional<QList<int>>& base, const CalendarList& children,
                                        const NimbrelCalendar& target)
{
    for (int i = 0; i < children.size(); ++i) {
        const NimbrelCalendar& child = *children.at(i);
        const int n = child.isLeaf() ? 0 : child.childCount();
        const bool match = &target == &child;
        if (n == 0 && !match)
            continue;
        QList<int> path = base.value_or(QList<int>());
        path.append(i);
        if (match)
            return path;
        if (auto found = indexPathFrom(path, *child.children(), target))
            return found;
    }
    return std::nullopt;
}

} // namespace

std::optional<QList<int>> ComQuorviaNimbrelPref::indexPathToObject(const NimbrelCalendar& node)
{
    return indexPathFrom(std::nullopt, *subscribeCalendars(), node);
}

QList<int> ComQuorviaNimbrelPref::selectionIndexPath() const
{
    return nimbrel::selectionIndexPath(m_subscribeOutlineView);
}

void ComQuorviaNimbrelPref::setSelectionIndexPath(const QList<int>& path)
{
    nimbrel::setSelectionIndexPath(m_subscribeOutlineView, path);
}

// ---- The link's callbacks ------------------------------------------------------------------------

void ComQuorviaNimbrelPref::nimbrelSubscribingToCalendar(const QVariantMap& calendar)
{
    // Only a calendar everybody may read but nobody may write asks for a password.
    if (boolValue(calendar, QStringLiteral("readableByAnyone")) &&
        !boolValue(calendar, QStringLiteral("writableByAnyone")))
        subscribeToCalendar(calendar);
}

void ComQuorviaNimbrelPref::nimbrelSubscribedCalendarsChanged()
{
    // 1. What the user has in front of them.
    const QList<int> selection = selectionIndexPath();
    const int googleSelection = selectionIndex(m_subscribeGoogleColumn.view);
    const int lastVisible = lastVisibleRow(m_subscribeOutlineView);
    // 2.
    static const char* const keys[] = {"subscribeCalendars", "subscribeToGoogle", "googleAccount",
                                       "googleLastSync"};
    for (const char* key : keys)
        willChangeValueForKey(QLatin1String(key));
    for (const char* key : keys)
        didChangeValueForKey(QLatin1String(key));
    if (!m_subscribeOutlineView)
        return;
    // 3. Each source open or closed as its row remembers.
    for (int r = 0; r < m_subscribeController->rowCount(); ++r) {
        const QModelIndex item = m_subscribeController->index(r, 0);
        if (m_subscribeController->calendarAt(item)->isExpanded())
            m_subscribeOutlineView->expand(item);
        else
            m_subscribeOutlineView->collapse(item);
    }
    // 4–5.
    setSelectionIndexPath(selection);
    setSelectionIndex(m_subscribeGoogleColumn.view, googleSelection);
    if (lastVisible >= 0)
        scrollRowToVisible(m_subscribeOutlineView, lastVisible);
}

} // namespace nimbrel
