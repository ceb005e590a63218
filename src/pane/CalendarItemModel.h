#pragma once

// The item model behind the panel's calendar tables and the subscription outline: it shows a list of
// calendar rows (NimbrelCalendar) that the pane publishes under a content key, and keeps each row's
// identity. A reload (the content key's did-change) compares the list with what is shown and turns
// the difference into removals, moves and insertions, so views keep their selection and expanded
// state on the rows that stay; a row's own change notices redraw that row; in a tree, a source's
// "children" notices update its calendars the same way.

#include "model/NimbrelCalendar.h"
#include "platform/Observable.h"

#include <QAbstractItemModel>
#include <QList>
#include <functional>
#include <memory>
#include <vector>

namespace nimbrel {

class CalendarItemModel : public QAbstractItemModel
{
    Q_OBJECT
public:
    // What one column shows of a row. A checkbox column is ticked by `checkKey` of the record (on
    // calendars only, not on sources) and may be ticked when `checkable` says so.
    struct Column
    {
        std::function<QString(const NimbrelCalendar&)> text;
        QString checkKey;
        std::function<bool(const NimbrelCalendar&)> checkable;
    };
    using Content = std::function<CalendarList()>;

    // `owner` announces `contentKey` whenever `content` may answer differently. A tree shows the
    // calendars of each source below it; a flat model shows the list alone.
    CalendarItemModel(Observable& owner, const QString& contentKey, Content content, QList<Column> columns,
                      bool tree, QObject* parent = nullptr);
    ~CalendarItemModel() override;

    // Re-reads the content; rows that stay keep their indexes' identity.
    void reload();

    // The row behind an index; null for an invalid index.
    NimbrelCalendar* calendarAt(const QModelIndex& index) const;
    CalendarRef calendarRefAt(const QModelIndex& index) const;
    // Index paths: the rows from the top level down.
    QList<int> indexPath(const QModelIndex& index) const;
    QModelIndex indexForPath(const QList<int>& path) const;

    // Which rows may be selected (all when unset).
    void setSelectable(std::function<bool(const NimbrelCalendar&)> selectable);
    // What ticking a checkbox through the model means (assistive tools toggle through setData).
    void setToggle(std::function<void(const QModelIndex&)> toggle);

    QModelIndex index(int row, int column, const QModelIndex& parent = QModelIndex()) const override;
    QModelIndex parent(const QModelIndex& child) const override;
    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    bool hasChildren(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role = Qt::EditRole) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    void setHeaders(const QStringList& headers) { m_headers = headers; }

private:
    struct Node;
    Node* nodeOf(const QModelIndex& index) const;
    QModelIndex indexOf(const Node* node, int column = 0) const;
    std::unique_ptr<Node> makeNode(const CalendarRef& calendar, Node* parent);
    void observe(Node* node);
    // Makes the shown children of `parent` the rows of `live`, in its order.
    void syncRows(Node* parent, const CalendarList& live);
    void removeVanished(Node* parent, const QModelIndex& parentIndex, const CalendarList& live);
    void reorderKept(Node* parent, const QModelIndex& parentIndex, const CalendarList& live);
    void insertNew(Node* parent, const QModelIndex& parentIndex, const CalendarList& live);
    static void renumber(Node* parent, int from);

    Content m_content;
    QList<Column> m_columns;
    QStringList m_headers;
    bool m_tree;
    std::unique_ptr<Node> m_root;
    std::function<bool(const NimbrelCalendar&)> m_selectable;
    std::function<void(const QModelIndex&)> m_toggle;
    Observation m_contentObservation;
};

} // namespace nimbrel
