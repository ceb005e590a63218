#include "pane/Sheets.h"

#include <QDialog>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>

namespace nimbrel {

int tagOf(const QObject* sender)
{
    return sender ? sender->property("tag").toInt() : 0;
}

void beginSheet(QDialog* sheet, QWidget* window, QObject* context, std::function<void(int)> didEnd)
{
    if (!sheet)
        return;
    if (window && sheet->parentWidget() != window)
        sheet->setParent(window, sheet->windowFlags() | Qt::Sheet | Qt::Dialog);
    sheet->setWindowModality(Qt::WindowModal);
    QObject::connect(
        sheet, &QDialog::finished, context ? context : sheet,
        [didEnd = std::move(didEnd)](int code) {
            if (didEnd)
                didEnd(code);
        },
        Qt::SingleShotConnection);
    sheet->open();
}

void endSheet(QDialog* sheet, int code)
{
    if (sheet && sheet->isVisible())
        sheet->done(code);
}

QMessageBox* beginAlertSheet(QWidget* window, QObject* context, const AlertTexts& texts,
                             std::function<void(int)> didEnd)
{
    auto* alert = new QMessageBox(window);
    alert->setAttribute(Qt::WA_DeleteOnClose);
    alert->setIcon(texts.warning ? QMessageBox::Warning : QMessageBox::Information);
    alert->setWindowTitle(texts.title);
    alert->setText(QStringLiteral("<b>%1</b>").arg(texts.title.toHtmlEscaped()));
    alert->setTextFormat(Qt::RichText);
    alert->setInformativeText(texts.message.toHtmlEscaped());
    QPushButton* defaultButton = alert->addButton(texts.defaultButton, QMessageBox::AcceptRole);
    defaultButton->setProperty("tag", kAlertDefaultReturn);
    alert->setDefaultButton(defaultButton);
    QPushButton* alternateButton = nullptr;
    if (!texts.alternateButton.isEmpty()) {
        alternateButton = alert->addButton(texts.alternateButton, QMessageBox::RejectRole);
        alternateButton->setProperty("tag", kAlertAlternateReturn);
        alert->setEscapeButton(alternateButton);
    } else {
        alert->setEscapeButton(defaultButton);
    }
    alert->setWindowModality(Qt::WindowModal);
    // Wide enough that a message of a few sentences reads as a paragraph, not a column.
    alert->setStyleSheet(QStringLiteral("QLabel#qt_msgbox_informativelabel { min-width: 360px; }"));
    QObject::connect(
        alert, &QDialog::finished, context ? context : alert,
        [alert, defaultButton, alternateButton, didEnd](int) {
            const QAbstractButton* clicked = alert->clickedButton();
            const int code = clicked == defaultButton                ? kAlertDefaultReturn
                             : clicked && clicked == alternateButton ? kAlertAlternateReturn
                                                                     : kAlertOtherReturn;
            if (didEnd)
                didEnd(code);
        },
        Qt::SingleShotConnection);
    alert->open();
    return alert;
}

void startAnimation(QProgressBar* indicator)
{
    if (!indicator)
        return;
    indicator->setRange(0, 0);
    indicator->setProperty("animating", true);
    indicator->show();
}

void stopAnimation(QProgressBar* indicator)
{
    if (!indicator)
        return;
    indicator->setProperty("animating", false);
    indicator->hide();
}

bool isAnimating(const QProgressBar* indicator)
{
    return indicator && indicator->property("animating").toBool();
}

} // namespace nimbrel

#include "platform/Strings.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QTabWidget>

namespace nimbrel {

namespace {
QString tr(const QString& text)
{
    return text.isEmpty() ? text : localizedString(text);
}
} // namespace

void localizeTexts(QWidget* root)
{
    if (!root)
        return;
    QList<QWidget*> widgets = root->findChildren<QWidget*>();
    widgets.prepend(root);
    for (QWidget* widget : std::as_const(widgets)) {
        if (!widget->windowTitle().isEmpty() && widget->isWindow())
            widget->setWindowTitle(tr(widget->windowTitle()));
        if (!widget->toolTip().isEmpty())
            widget->setToolTip(tr(widget->toolTip()));
        if (!widget->accessibleName().isEmpty())
            widget->setAccessibleName(tr(widget->accessibleName()));
        if (!widget->accessibleDescription().isEmpty())
            widget->setAccessibleDescription(tr(widget->accessibleDescription()));
        if (auto* label = qobject_cast<QLabel*>(widget); label && label->textFormat() != Qt::RichText)
            label->setText(tr(label->text()));
        else if (auto* button = qobject_cast<QAbstractButton*>(widget))
            button->setText(tr(button->text()));
        else if (auto* group = qobject_cast<QGroupBox*>(widget))
            group->setTitle(tr(group->title()));
        else if (auto* edit = qobject_cast<QLineEdit*>(widget))
            edit->setPlaceholderText(tr(edit->placeholderText()));
        else if (auto* tabs = qobject_cast<QTabWidget*>(widget)) {
            for (int i = 0; i < tabs->count(); ++i)
                tabs->setTabText(i, tr(tabs->tabText(i)));
        }
    }
}

void setEnabledIfLoaded(QWidget* control, bool enabled)
{
    if (control)
        control->setEnabled(enabled);
}

void prepareIndicator(QProgressBar* indicator)
{
    if (!indicator)
        return;
    QSizePolicy policy = indicator->sizePolicy();
    policy.setRetainSizeWhenHidden(true);
    indicator->setSizePolicy(policy);
    indicator->setTextVisible(false);
    indicator->setMaximumHeight(10);
    stopAnimation(indicator);
}

void addSyncIntervalChoices(QComboBox* choice)
{
    if (!choice)
        return;
    const char* const texts[] = {"Every 5 minutes", "Every 15 minutes", "Every hour", "Once a day"};
    for (int value = 0; value < 4; ++value)
        choice->addItem(localizedString(QLatin1String(texts[value])), qint64(value));
}

} // namespace nimbrel
