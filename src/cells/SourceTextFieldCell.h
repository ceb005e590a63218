#pragma once

// The heading cell of a source row: its text drawn engraved (a soft white copy one pixel below) in the
// colour and font the pane gives it, on the bottom of the row, cut at the tail with an ellipsis.

#include <QColor>
#include <QFont>
#include <QStyledItemDelegate>
#include <functional>

namespace nimbrel {

class SourceTextFieldCell : public QStyledItemDelegate
{
    Q_OBJECT
public:
    // initTextCell: with the cell's initial text (shown when the row gives none).
    explicit SourceTextFieldCell(const QString& text = QString(), QObject* parent = nullptr);

    void setTextColor(const QColor& color) { m_textColor = color; }
    QColor textColor() const { return m_textColor; }
    void setFont(const QFont& font) { m_font = font; }
    QFont font() const { return m_font; }
    void setEditable(bool editable) { m_editable = editable; }
    bool isEditable() const { return m_editable; }

    // The outline's "will display cell": may change the option (its text above all) before drawing.
    using WillDisplay = std::function<void(QStyleOptionViewItem& option, const QModelIndex& index)>;
    void setWillDisplay(WillDisplay handler) { m_willDisplay = std::move(handler); }

    // The rectangle the text is drawn in for a frame and a text: 4 px in, sitting on the frame's bottom.
    QRect textRect(const QRect& frame, const QString& text) const;
    // The text as drawn in `width` pixels (cut at the tail).
    QString elidedText(const QString& text, int width) const;

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

protected:
    void initStyleOption(QStyleOptionViewItem* option, const QModelIndex& index) const override;

private:
    QString m_text;
    QColor m_textColor = QColor::fromRgbF(0.31f, 0.36f, 0.43f, 1.0f);
    QFont m_font;
    bool m_editable = false;
    WillDisplay m_willDisplay;
};

} // namespace nimbrel
