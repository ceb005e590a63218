#pragma once

// The checkbox cell of a calendar row: a checkbox with the calendar's title. It toggles only on a click
// that starts and ends inside the box it draws (indicator and title), never on the empty rest of the
// row, and never when the row is disabled; Space toggles the current row. A toggle calls the cell's
// action with the row instead of writing to the model, so the pane decides what a tick means.

#include <QPersistentModelIndex>
#include <QStyledItemDelegate>
#include <functional>

namespace nimbrel {

class SourceButtonCell : public QStyledItemDelegate
{
    Q_OBJECT
public:
    explicit SourceButtonCell(const QString& text = QString(), QObject* parent = nullptr);

    void setEditable(bool editable) { m_editable = editable; }
    bool isEditable() const { return m_editable; }
    // Target and action: called with the row whose box was clicked.
    using Action = std::function<void(const QModelIndex& row)>;
    void setAction(Action action) { m_action = std::move(action); }
    // Accepted and ignored, so a binding with a placeholder can be attached to the checkbox.
    void setPlaceholderString(const QString&) {}

    using WillDisplay = std::function<void(QStyleOptionViewItem& option, const QModelIndex& index)>;
    void setWillDisplay(WillDisplay handler) { m_willDisplay = std::move(handler); }

    // Where the box (indicator and title) lies in a row drawn with `option`.
    QRect boxRect(const QStyleOptionViewItem& option, const QModelIndex& index) const;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override;

private:
    QStyleOptionButton buttonOption(const QStyleOptionViewItem& option) const;
    void toggle(QAbstractItemModel* model, const QModelIndex& index);

    QString m_text;
    bool m_editable = true;
    Action m_action;
    WillDisplay m_willDisplay;
    QPersistentModelIndex m_pressed; // the row whose box took the mouse press
};

} // namespace nimbrel
