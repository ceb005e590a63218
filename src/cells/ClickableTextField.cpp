#include "cells/ClickableTextField.h"

#include <QMouseEvent>

namespace nimbrel {

ClickableTextField::ClickableTextField(QWidget* parent) : ClickableTextField(QString(), parent) {}

ClickableTextField::ClickableTextField(const QString& text, QWidget* parent) : QLabel(text, parent)
{
    setCursor(Qt::PointingHandCursor);
    setFocusPolicy(Qt::NoFocus);
}

void ClickableTextField::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        QLabel::mousePressEvent(event);
        return;
    }
    event->accept();
    emit action(this);
}

} // namespace nimbrel
