#pragma once

// A label that behaves as a link: it acts on the mouse press itself (no tracking, no highlight) and
// shows the pointing-hand cursor over its whole visible area.

#include <QLabel>

namespace nimbrel {

class ClickableTextField : public QLabel
{
    Q_OBJECT
public:
    explicit ClickableTextField(QWidget* parent = nullptr);
    explicit ClickableTextField(const QString& text, QWidget* parent = nullptr);

    // The field's string value.
    QString stringValue() const { return text(); }

signals:
    // The field's action, sent to its target with the field as sender.
    void action(nimbrel::ClickableTextField* sender);

protected:
    void mousePressEvent(QMouseEvent* event) override;
};

} // namespace nimbrel
