#include "cells/SourceTextFieldCell.h"

#include <QApplication>
#include <QFontMetrics>
#include <QPainter>

namespace nimbrel {

SourceTextFieldCell::SourceTextFieldCell(const QString& text, QObject* parent)
    : QStyledItemDelegate(parent), m_text(text)
{
}

void SourceTextFieldCell::initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const
{
    QStyledItemDelegate::initStyleOption(option, index);
    if (option->text.isEmpty())
        option->text = m_text;
    if (m_willDisplay)
        m_willDisplay(*option, index);
}

QRect SourceTextFieldCell::textRect(const QRect& frame, const QString& text) const
{
    Q_UNUSED(text);
    const int h = QFontMetrics(m_font).height();
    return QRect(frame.x() + 4, frame.y() + frame.height() - h, frame.width(), h);
}

QString SourceTextFieldCell::elidedText(const QString& text, int width) const
{
    // Never wrapped: one line, cut at the tail.
    QString line = text;
    line.replace(QLatin1Char('\n'), QLatin1Char(' '));
    return QFontMetrics(m_font).elidedText(line, Qt::ElideRight, width);
}

void SourceTextFieldCell::paint(QPainter* painter, const QStyleOptionViewItem& option,
                                const QModelIndex& index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);

    // The row's own background (selection highlight included) comes from the style.
    QStyleOptionViewItem background = opt;
    background.text.clear();
    background.icon = QIcon();
    background.features &= ~QStyleOptionViewItem::HasCheckIndicator;
    const QWidget* widget = opt.widget;
    QStyle* style = widget ? widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &background, painter, widget);

    const QRect rect = textRect(opt.rect, opt.text);
    // The frame is as wide as the cell; keep the text inside what is visible of it.
    const QString text = elidedText(opt.text, qMax(0, opt.rect.right() - rect.x() - 2));
    painter->save();
    painter->setFont(m_font);
    if (opt.state & QStyle::State_Selected) {
        painter->setPen(Qt::white);
        painter->drawText(rect, Qt::AlignLeft | Qt::AlignBottom | Qt::TextSingleLine, text);
    } else {
        painter->setPen(QColor::fromRgbF(1.0f, 1.0f, 1.0f, 0.7f));
        painter->drawText(rect.translated(0, 1), Qt::AlignLeft | Qt::AlignBottom | Qt::TextSingleLine, text);
        painter->setPen(m_textColor);
        painter->drawText(rect, Qt::AlignLeft | Qt::AlignBottom | Qt::TextSingleLine, text);
    }
    painter->restore();
}

QSize SourceTextFieldCell::sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const
{
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    const QFontMetrics metrics(m_font);
    return QSize(metrics.horizontalAdvance(opt.text) + 8, metrics.height() + 8);
}

} // namespace nimbrel
