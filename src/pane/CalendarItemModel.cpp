#include "pane/CalendarItemModel.h"

#include <QHash>
#include <QSet>
#include <algorithm>

namespace nimbrel {

namespace {
const QString kChildren = QStringLiteral("children");
const QString kChildCount = QStringLiteral("childCount");
} // namespace

// One shown row: the calendar it stands for, where it is, and (in a tree) the rows below it. The
// model's indexes point at these nodes, so an index names a row, not a position.
struct CalendarItemModel::Node
{
    CalendarRef calendar; // null for the invisible root
    Node* parent = nullptr;
    int row = 0;
    std::vector<std::unique_ptr<Node>> children;
    Observation observation;
};

CalendarItemModel::CalendarItemModel(Observable& owner, const QString& contentKey, Content content,
                                     QList<Column> columns, bool tree, QObject* parent)
    : QAbstractItemModel(parent), m_content(std::move(content)), m_columns(std::move(columns)), m_tree(tree),
      m_root(std::make_unique<Node>())
{
    m_contentObservation = owner.observe(contentKey, [this](const ChangeNotice& notice) {
        if (notice.phase == ChangePhase::Did)
            reload();
    });
    reload();
}

CalendarItemModel::~CalendarItemModel() = default;

void CalendarItemModel::reload()
{
    syncRows(m_root.get(), m_content ? m_content() : CalendarList());
}

// ---- Nodes ------------------------------------------------------------------------------------

std::unique_ptr<CalendarItemModel::Node> CalendarItemModel::makeNode(const CalendarRef& calendar,
                                                                     Node* parent)
{
    auto node = std::make_unique<Node>();
    node->calendar = calendar;
    node->parent = parent;
    if (m_tree && calendar->children()) {
        const CalendarList& children = *calendar->children();
        node->children.reserve(size_t(children.size()));
        for (const CalendarRef& child : children) {
            node->children.push_back(makeNode(child, node.get()));
            node->children.back()->row = int(node->children.size()) - 1;
        }
    }
    observe(node.get());
    return node;
}

void CalendarItemModel::observe(Node* node)
{
    // The observation belongs to the node: it ends when the row leaves the model.
    node->observation = node->calendar->observe(QString(), [this, node](const ChangeNotice& notice) {
        if (notice.phase != ChangePhase::Did || notice.key == kChildCount)
            return;
        if (notice.key == kChildren) {
            if (m_tree && node->calendar->children())
                syncRows(node, *node->calendar->children());
            return;
        }
        emit dataChanged(indexOf(node, 0), indexOf(node, columnCount() - 1));
    });
}

CalendarItemModel::Node* CalendarItemModel::nodeOf(const QModelIndex& index) const
{
    return index.isValid() ? static_cast<Node*>(index.internalPointer()) : m_root.get();
}

QModelIndex CalendarItemModel::indexOf(const Node* node, int column) const
{
    if (!node || node == m_root.get())
        return QModelIndex();
    return createIndex(node->row, column, const_cast<Node*>(node));
}

void CalendarItemModel::renumber(Node* parent, int from)
{
    for (size_t i = size_t(std::max(from, 0)); i < parent->children.size(); ++i)
        parent->children[i]->row = int(i);
}

// ---- Reloading --------------------------------------------------------------------------------

void CalendarItemModel::syncRows(Node* parent, const CalendarList& live)
{
    const QModelIndex parentIndex = indexOf(parent);
    removeVanished(parent, parentIndex, live);
    reorderKept(parent, parentIndex, live);
    insertNew(parent, parentIndex, live);
}

void CalendarItemModel::removeVanished(Node* parent, const QModelIndex& parentIndex, const CalendarList& live)
{
    QSet<const NimbrelCalendar*> present;
    present.reserve(live.size());
    for (const CalendarRef& calendar : live)
        present.insert(calendar.get());
    auto& rows = parent->children;
    // From the end, one run of neighbouring vanished rows at a time.
    for (int last = int(rows.size()) - 1; last >= 0; --last) {
        if (present.contains(rows[size_t(last)]->calendar.get()))
            continue;
        int first = last;
        while (first > 0 && !present.contains(rows[size_t(first - 1)]->calendar.get()))
            --first;
        beginRemoveRows(parentIndex, first, last);
        rows.erase(rows.begin() + first, rows.begin() + last + 1);
        renumber(parent, first);
        endRemoveRows();
        last = first;
    }
}

void CalendarItemModel::reorderKept(Node* parent, const QModelIndex& parentIndex, const CalendarList& live)
{
    auto& rows = parent->children;
    QHash<const NimbrelCalendar*, size_t> shown;
    shown.reserve(qsizetype(rows.size()));
    for (size_t i = 0; i < rows.size(); ++i)
        shown.insert(rows[i]->calendar.get(), i);
    // The kept rows in the order of the list.
    std::vector<size_t> order;
    order.reserve(rows.size());
    for (const CalendarRef& calendar : live) {
        const auto it = shown.constFind(calendar.get());
        if (it != shown.constEnd())
            order.push_back(*it);
    }
    if (std::is_sorted(order.begin(), order.end()))
        return;
    emit layoutAboutToBeChanged({QPersistentModelIndex(parentIndex)}, VerticalSortHint);
    std::vector<std::unique_ptr<Node>> sorted;
    sorted.reserve(rows.size());
    for (size_t from : order)
        sorted.push_back(std::move(rows[from]));
    rows = std::move(sorted);
    renumber(parent, 0);
    // Persistent indexes keep their node; only the rows below this parent moved.
    QModelIndexList from, to;
    for (const QModelIndex& index : persistentIndexList()) {
        const Node* node = nodeOf(index);
        if (node->parent == parent && index.row() != node->row) {
            from << index;
            to << createIndex(node->row, index.column(), const_cast<Node*>(node));
        }
    }
    changePersistentIndexList(from, to);
    emit layoutChanged({QPersistentModelIndex(parentIndex)}, VerticalSortHint);
}

void CalendarItemModel::insertNew(Node* parent, const QModelIndex& parentIndex, const CalendarList& live)
{
    auto& rows = parent->children;
    size_t shown = 0;
    for (qsizetype i = 0; i < live.size();) {
        if (shown < rows.size() && rows[shown]->calendar == live[i]) {
            ++shown;
            ++i;
            continue;
        }
        // A run of new rows: all of them up to the next row already shown.
        const qsizetype first = i;
        while (i < live.size() && !(shown < rows.size() && rows[shown]->calendar == live[i]))
            ++i;
        beginInsertRows(parentIndex, int(first), int(i - 1));
        std::vector<std::unique_ptr<Node>> added;
        added.reserve(size_t(i - first));
        for (qsizetype k = first; k < i; ++k)
            added.push_back(makeNode(live[k], parent));
        rows.insert(rows.begin() + qsizetype(shown), std::make_move_iterator(added.begin()),
                    std::make_move_iterator(added.end()));
        renumber(parent, int(shown));
        shown += size_t(i - first);
        endInsertRows();
    }
}

// ---- Lookups ----------------------------------------------------------------------------------

NimbrelCalendar* CalendarItemModel::calendarAt(const QModelIndex& index) const
{
    return index.isValid() && index.model() == this ? nodeOf(index)->calendar.get() : nullptr;
}

CalendarRef CalendarItemModel::calendarRefAt(const QModelIndex& index) const
{
    return index.isValid() && index.model() == this ? nodeOf(index)->calendar : nullptr;
}

QList<int> CalendarItemModel::indexPath(const QModelIndex& index) const
{
    QList<int> path;
    for (QModelIndex at = index; at.isValid(); at = at.parent())
        path.prepend(at.row());
    return path;
}

QModelIndex CalendarItemModel::indexForPath(const QList<int>& path) const
{
    QModelIndex at;
    for (int row : path) {
        at = index(row, 0, at);
        if (!at.isValid())
            return QModelIndex();
    }
    return at;
}

void CalendarItemModel::setSelectable(std::function<bool(const NimbrelCalendar&)> selectable)
{
    m_selectable = std::move(selectable);
}

void CalendarItemModel::setToggle(std::function<void(const QModelIndex&)> toggle)
{
    m_toggle = std::move(toggle);
}

// ---- QAbstractItemModel ------------------------------------------------------------------------

QModelIndex CalendarItemModel::index(int row, int column, const QModelIndex& parent) const
{
    const Node* node = nodeOf(parent);
    if (row < 0 || size_t(row) >= node->children.size() || column < 0 || column >= m_columns.size())
        return QModelIndex();
    return createIndex(row, column, node->children[size_t(row)].get());
}

QModelIndex CalendarItemModel::parent(const QModelIndex& child) const
{
    return child.isValid() ? indexOf(nodeOf(child)->parent) : QModelIndex();
}

int CalendarItemModel::rowCount(const QModelIndex& parent) const
{
    if (parent.isValid() && parent.column() != 0)
        return 0;
    return int(nodeOf(parent)->children.size());
}

int CalendarItemModel::columnCount(const QModelIndex&) const
{
    return int(m_columns.size());
}

bool CalendarItemModel::hasChildren(const QModelIndex& parent) const
{
    return rowCount(parent) > 0;
}

QVariant CalendarItemModel::data(const QModelIndex& index, int role) const
{
    const NimbrelCalendar* calendar = calendarAt(index);
    if (!calendar)
        return QVariant();
    const Column& column = m_columns.at(index.column());
    switch (role) {
    case Qt::DisplayRole:
        return column.text ? column.text(*calendar) : QString();
    case Qt::AccessibleTextRole: {
        // Screen readers get the plain title, or the summary when that is all the column shows.
        const QString text = column.text ? column.text(*calendar).trimmed() : QString();
        return text.isEmpty() && !column.checkKey.isEmpty() ? QStringLiteral("(null)") : text;
    }
    case Qt::TextAlignmentRole:
        // A source's summary sits on the bottom of its row, level with the heading beside it.
        return QVariant::fromValue(Qt::AlignLeft |
                                   (calendar->isLeaf() || !m_tree ? Qt::AlignVCenter : Qt::AlignBottom));
    case Qt::CheckStateRole:
        if (column.checkKey.isEmpty() || !calendar->isLeaf())
            return QVariant();
        return boolValue(calendar->record(), column.checkKey) ? Qt::Checked : Qt::Unchecked;
    default:
        return QVariant();
    }
}

bool CalendarItemModel::setData(const QModelIndex& index, const QVariant& value, int role)
{
    if (role != Qt::CheckStateRole || !(flags(index) & Qt::ItemIsUserCheckable) || !m_toggle)
        return false;
    if ((value.toInt() == Qt::Checked) != (data(index, Qt::CheckStateRole).toInt() == Qt::Checked))
        m_toggle(index);
    return true;
}

Qt::ItemFlags CalendarItemModel::flags(const QModelIndex& index) const
{
    const NimbrelCalendar* calendar = calendarAt(index);
    if (!calendar)
        return Qt::NoItemFlags;
    Qt::ItemFlags flags = Qt::ItemIsEnabled;
    if (!m_selectable || m_selectable(*calendar))
        flags |= Qt::ItemIsSelectable;
    const Column& column = m_columns.at(index.column());
    if (!column.checkKey.isEmpty() && calendar->isLeaf() &&
        (!column.checkable || column.checkable(*calendar)))
        flags |= Qt::ItemIsUserCheckable;
    if (!m_tree)
        flags |= Qt::ItemNeverHasChildren;
    return flags;
}

QVariant CalendarItemModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section < m_headers.size())
        return m_headers.at(section);
    return QVariant();
}

} // namespace nimbrel
