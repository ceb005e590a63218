#include "pane/Binding.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>

namespace nimbrel {

void Binder::onDidChange(const QString& key, std::function<void()> refresh)
{
    refresh();
    // A key path ("publishOptions.readPassword") also follows every key on its way: replacing the
    // whole dictionary changes the value at the end of the path too.
    for (qsizetype dot = key.indexOf(QLatin1Char('.')); dot >= 0;
         dot = key.indexOf(QLatin1Char('.'), dot + 1))
        followKey(key.left(dot), refresh);
    followKey(key, refresh);
}

void Binder::followKey(const QString& key, const std::function<void()>& refresh)
{
    m_observations.push_back(m_source.observe(key, [refresh](const ChangeNotice& notice) {
        if (notice.phase == ChangePhase::Did)
            refresh();
    }));
}

void Binder::bindProperty(QObject* widget, const char* property, const QString& key,
                          std::function<QVariant()> getter)
{
    QPointer<QObject> target(widget);
    onDidChange(key, [target, property, getter = std::move(getter)] {
        if (target)
            target->setProperty(property, getter());
    });
}

void Binder::bindText(QLabel* label, const QString& key, std::function<QString()> getter)
{
    QPointer<QLabel> target(label);
    onDidChange(key, [target, getter = std::move(getter)] {
        if (target)
            target->setText(getter());
    });
}

void Binder::bindTitle(QAbstractButton* button, const QString& key, std::function<QString()> getter)
{
    QPointer<QAbstractButton> target(button);
    onDidChange(key, [target, getter = std::move(getter)] {
        if (target)
            target->setText(getter());
    });
}

void Binder::bindEnabled(QWidget* widget, const QString& key, std::function<bool()> getter)
{
    QPointer<QWidget> target(widget);
    onDidChange(key, [target, getter = std::move(getter)] {
        if (target)
            target->setEnabled(getter());
    });
}

void Binder::bindChecked(QAbstractButton* button, const QString& key, std::function<bool()> getter,
                         std::function<void(bool)> setter)
{
    QPointer<QAbstractButton> target(button);
    onDidChange(key, [target, getter = std::move(getter)] {
        if (target && target->isChecked() != getter()) {
            const QSignalBlocker quiet(target.data());
            target->setChecked(!target->isChecked());
        }
    });
    if (setter && button) {
        // Only the user's clicks write back; refreshes above are silenced.
        QObject::connect(button, &QAbstractButton::toggled, button, [setter](bool on) { setter(on); });
    }
}

void Binder::bindLineEdit(QLineEdit* edit, const QString& key, std::function<QString()> getter,
                          std::function<void(const QString&)> setter)
{
    QPointer<QLineEdit> target(edit);
    onDidChange(key, [target, getter = std::move(getter)] {
        const QString value = getter();
        if (target && target->text() != value)
            target->setText(value);
    });
    if (setter && edit)
        QObject::connect(edit, &QLineEdit::textEdited, edit, [setter](const QString& text) { setter(text); });
}

void Binder::bindComboData(QComboBox* combo, const QString& key, std::function<QVariant()> getter,
                           std::function<void(const QVariant&)> setter)
{
    QPointer<QComboBox> target(combo);
    onDidChange(key, [target, getter = std::move(getter)] {
        if (!target)
            return;
        const QVariant value = getter();
        int at = target->findData(value);
        if (at < 0 && value.isValid()) {
            // A value none of the choices names is shown as it is, so that saving keeps it.
            target->addItem(value.toString(), value);
            at = target->count() - 1;
        }
        const QSignalBlocker quiet(target.data());
        target->setCurrentIndex(at);
    });
    if (setter && combo) {
        QObject::connect(combo, &QComboBox::activated, combo,
                         [combo, setter](int at) { setter(combo->itemData(at)); });
    }
}

} // namespace nimbrel
