#include "cells/SourceButtonCell.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QStyleOptionButton>

namespace nimbrel {

namespace {

QStyle* styleOf(const QStyleOptionViewItem& option)
{
    return option.widget ? option.widget->style() : QApplication::style();
}

} // namespace

SourceButtonCell::SourceButtonCell(const QString& text, QObject* parent)
    : QStyledItemDelegate(parent), m_text(text)
{
}

void SourceButtonCell::initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const
{
    QStyledItemDelegate::initStyleOption(option, index);
    if (option->text.isEmpty())
        option->text = m_text;
    if (!(index.flags() & Qt::ItemIsEnabled))
        option->state &= ~QStyle::State_Enabled;
    if (m_willDisplay)
        m_willDisplay(*option, index);
}

QStyleOptionButton SourceButtonCell::buttonOption(const QStyleOptionViewItem& option) const
{
    QStyleOptionButton button;
    if (option.widget)
        button.initFrom(option.widget);
    button.rect = option.rect;
    button.text = option.text;
    button.fontMetrics = option.fontMetrics;
    button.palette = option.palette;
    button.state = (option.state & QStyle::State_Enabled) | QStyle::State_Active;
    button.state |= option.checkState == Qt::Checked ? QStyle::State_On : QStyle::State_Off;
    button.direction = option.direction;
    return button;
}

QRect SourceButtonCell::boxRect(const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QStyleOptionButton button = buttonOption(opt);
    QStyle* style = styleOf(opt);
    const QRect indicator = style->subElementRect(QStyle::SE_CheckBoxIndicator, &button, opt.widget);
    const QRect label = style->subElementRect(QStyle::SE_CheckBoxContents, &button, opt.widget);
    const int textWidth = opt.fontMetrics.horizontalAdvance(opt.text) + 6;
    QRect box = indicator.united(QRect(label.x(), label.y(), qMin(label.width(), textWidth), label.height()));
    return box.intersected(opt.rect);
}

void SourceButtonCell::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QStyle* style = styleOf(opt);

    QStyleOptionViewItem background = opt;
    background.text.clear();
    background.features &= ~QStyleOptionViewItem::HasCheckIndicator;
    style->drawControl(QStyle::CE_ItemViewItem, &background, painter, opt.widget);

    QStyleOptionButton button = buttonOption(opt);
    if (opt.state & QStyle::State_Selected)
        button.palette.setColor(QPalette::WindowText, opt.palette.color(QPalette::HighlightedText));
    button.text = opt.fontMetrics.elidedText(
        opt.text, Qt::ElideRight,
        qMax(0, opt.rect.width() - style->pixelMetric(QStyle::PM_IndicatorWidth) - 12));
    style->drawControl(QStyle::CE_CheckBox, &button, painter, opt.widget);
}

QSize SourceButtonCell::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QStyleOptionButton button = buttonOption(opt);
    const QSize text = opt.fontMetrics.size(Qt::TextSingleLine, opt.text);
    return styleOf(opt)->sizeFromContents(QStyle::CT_CheckBox, &button, text, opt.widget) + QSize(0, 4);
}

void SourceButtonCell::toggle(QAbstractItemModel* model, const QModelIndex& index)
{
    if (m_action)
        m_action(index);
    else if (model) {
        const bool on = index.data(Qt::CheckStateRole).toInt() == Qt::Checked;
        model->setData(index, on ? Qt::Unchecked : Qt::Checked, Qt::CheckStateRole);
    }
}

bool SourceButtonCell::editorEvent(QEvent* event, QAbstractItemModel* model,
                                   const QStyleOptionViewItem& option, const QModelIndex& index)
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    const bool enabled = m_editable && (opt.state & QStyle::State_Enabled);

    switch (event->type()) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonDblClick: {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        // A press outside the box is not tracked: it selects the row, nothing more.
        const bool inside =
            mouse->button() == Qt::LeftButton && boxRect(option, index).contains(mouse->position().toPoint());
        m_pressed = inside && enabled ? QPersistentModelIndex(index) : QPersistentModelIndex();
        // A double click inside the box is the second half of a click pair: swallow it so it does not
        // also open the row.
        return inside && event->type() == QEvent::MouseButtonDblClick;
    }
    case QEvent::MouseButtonRelease: {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        const bool wasPressed = m_pressed.isValid() && m_pressed == index;
        m_pressed = QPersistentModelIndex();
        if (!wasPressed || !enabled || !boxRect(option, index).contains(mouse->position().toPoint()))
            return false;
        toggle(model, index);
        return true;
    }
    case QEvent::KeyPress: {
        const auto* key = static_cast<QKeyEvent*>(event);
        if (key->key() != Qt::Key_Space && key->key() != Qt::Key_Select)
            return false;
        if (enabled)
            toggle(model, index);
        return true;
    }
    default:
        return false;
    }
}

} // namespace nimbrel
