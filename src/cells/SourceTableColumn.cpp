#include "cells/SourceTableColumn.h"

namespace nimbrel {

SourceTableColumn::SourceTableColumn(QObject* parent) : QStyledItemDelegate(parent) {}

void SourceTableColumn::setSourceCell(QStyledItemDelegate* sourceCell, QStyledItemDelegate* leafCell)
{
    m_sourceCell = sourceCell;
    m_leafCell = leafCell;
    // The column owns its cells from now on.
    for (QStyledItemDelegate* cell : {sourceCell, leafCell}) {
        if (cell && !cell->parent())
            cell->setParent(this);
    }
}

int SourceTableColumn::levelForRow(const QModelIndex& index)
{
    int level = 0;
    for (QModelIndex parent = index.parent(); parent.isValid(); parent = parent.parent())
        ++level;
    return level;
}

QStyledItemDelegate* SourceTableColumn::dataCellForRow(const QModelIndex& index) const
{
    return levelForRow(index) > 0 ? m_leafCell.data() : m_sourceCell.data();
}

void SourceTableColumn::paint(QPainter* painter, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const
{
    if (QStyledItemDelegate* cell = dataCellForRow(index))
        cell->paint(painter, option, index);
    else
        QStyledItemDelegate::paint(painter, option, index);
}

QSize SourceTableColumn::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    if (QStyledItemDelegate* cell = dataCellForRow(index))
        return cell->sizeHint(option, index);
    return QStyledItemDelegate::sizeHint(option, index);
}

bool SourceTableColumn::editorEvent(QEvent* event, QAbstractItemModel* model,
                                    const QStyleOptionViewItem& option, const QModelIndex& index)
{
    // editorEvent is protected in the cells; the column is their friend in spirit: forward through
    // the public entry point every delegate has.
    if (QStyledItemDelegate* cell = dataCellForRow(index)) {
        QAbstractItemDelegate* base = cell;
        return base->editorEvent(event, model, option, index);
    }
    return QStyledItemDelegate::editorEvent(event, model, option, index);
}

} // namespace nimbrel
