#pragma once

// The outline's only column: hands each row to the source cell (top-level rows) or the leaf cell
// (rows below a source), so one view draws sources as headings and calendars as checkboxes.

#include <QPointer>
#include <QStyledItemDelegate>

namespace nimbrel {

class SourceTableColumn : public QStyledItemDelegate
{
    Q_OBJECT
public:
    explicit SourceTableColumn(QObject* parent = nullptr);

    // Called once, when the view is set up; the column keeps both cells alive from then on.
    void setSourceCell(QStyledItemDelegate* sourceCell, QStyledItemDelegate* leafCell);
    QStyledItemDelegate* sourceCell() const { return m_sourceCell; }
    QStyledItemDelegate* leafCell() const { return m_leafCell; }

    // The leaf cell when the row's level is above 0, else the source cell (null before set-up).
    QStyledItemDelegate* dataCellForRow(const QModelIndex& index) const;
    static int levelForRow(const QModelIndex& index);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

protected:
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;

private:
    QPointer<QStyledItemDelegate> m_sourceCell;
    QPointer<QStyledItemDelegate> m_leafCell;
};

} // namespace nimbrel
