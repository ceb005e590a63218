#pragma once

// The one binding helper of the pane: a widget property follows a key of an observable object. The
// value is read through a getter once at binding time and again on every did-change of the key (for
// a key path such as "publishOptions.readPassword", also of each key on its way, "publishOptions");
// two-way bindings write the user's edits back through a setter. Nothing is filled by hand.

#include "platform/Observable.h"

#include <QPointer>
#include <QVariant>
#include <functional>
#include <vector>

class QAbstractButton;
class QComboBox;
class QLabel;
class QLineEdit;
class QWidget;

namespace nimbrel {

class Binder
{
public:
    explicit Binder(Observable& source) : m_source(source) {}

    // Any widget property (text, enabled, visible, …) follows `key`.
    void bindProperty(QObject* widget, const char* property, const QString& key,
                      std::function<QVariant()> getter);
    void bindText(QLabel* label, const QString& key, std::function<QString()> getter);
    void bindTitle(QAbstractButton* button, const QString& key, std::function<QString()> getter);
    void bindEnabled(QWidget* widget, const QString& key, std::function<bool()> getter);
    // A checkbox follows `key`; a click writes back through `setter` when given.
    void bindChecked(QAbstractButton* button, const QString& key, std::function<bool()> getter,
                     std::function<void(bool)> setter = {});
    // A line edit follows `key`; typing writes back through `setter` when given.
    void bindLineEdit(QLineEdit* edit, const QString& key, std::function<QString()> getter,
                      std::function<void(const QString&)> setter = {});

    // A combo box shows the item whose data is the value; the user's choice writes its data back.
    void bindComboData(QComboBox* combo, const QString& key, std::function<QVariant()> getter,
                       std::function<void(const QVariant&)> setter = {});

    void unbindAll() { m_observations.clear(); }
    int count() const { return static_cast<int>(m_observations.size()); }

private:
    void onDidChange(const QString& key, std::function<void()> refresh);
    void followKey(const QString& key, const std::function<void()>& refresh);

    Observable& m_source;
    std::vector<Observation> m_observations;
};

} // namespace nimbrel
