#pragma once

// Change notices per key, as bound views need them: a will-change notice before a value changes and
// a did-change notice after; for a to-many key, set-mutation notices that also carry the kind of
// mutation and the objects added or removed. Notices are delivered synchronously, to observers in the
// order they were added; an observer may add or remove observers (itself included) while a notice is
// being delivered: one removed is not called again, one added is called from the next notice on.

#include <QList>
#include <QString>
#include <functional>
#include <memory>

namespace nimbrel {

class Observable;

enum class ChangePhase
{
    Will,
    Did
};
enum class SetMutation
{
    None,
    Union,
    Minus
};

struct ChangeNotice
{
    Observable* object = nullptr; // who changes
    QString key;
    ChangePhase phase = ChangePhase::Will;
    SetMutation mutation = SetMutation::None; // None for a plain value change
    QList<Observable*> objects;               // the objects of a set mutation
};

using ObserverFunction = std::function<void(const ChangeNotice&)>;

// Keeps an observation alive; removes it when destroyed or reset. Safe to outlive the observed object.
class Observation
{
public:
    Observation() = default;
    ~Observation();
    Observation(Observation&& other) noexcept;
    Observation& operator=(Observation&& other) noexcept;
    Observation(const Observation&) = delete;
    Observation& operator=(const Observation&) = delete;

    void reset();
    bool isActive() const;

private:
    friend class Observable;
    struct Registry;
    Observation(std::weak_ptr<Registry> registry, quint64 token);

    std::weak_ptr<Registry> m_registry;
    quint64 m_token = 0;
};

class Observable
{
public:
    Observable();
    virtual ~Observable();
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    // Observes one key; an empty key observes every key of this object.
    [[nodiscard]] Observation observe(const QString& key, ObserverFunction observer);

    // How many observers are registered for `key` (every observer when key is empty); for tests.
    int observerCount(const QString& key = QString()) const;

    void willChangeValueForKey(const QString& key);
    void didChangeValueForKey(const QString& key);
    void willChangeValueForKey(const QString& key, SetMutation mutation, const QList<Observable*>& objects);
    void didChangeValueForKey(const QString& key, SetMutation mutation, const QList<Observable*>& objects);

private:
    void deliver(const ChangeNotice& notice);

    std::shared_ptr<Observation::Registry> m_registry;
};

} // namespace nimbrel
