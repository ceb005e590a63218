#include "platform/Observable.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace nimbrel {

// Shared between an Observable, its Observations and any delivery in progress, so that each of
// them may go away while the others still use it.
struct Observation::Registry
{
    struct Entry
    {
        quint64 token;
        QString key; // empty: every key
        ObserverFunction function;
        bool active = true;
    };

    std::vector<std::shared_ptr<Entry>> entries;
    quint64 nextToken = 1;

    void remove(quint64 token)
    {
        const auto it = std::find_if(entries.begin(), entries.end(),
                                     [token](const std::shared_ptr<Entry>& e) { return e->token == token; });
        if (it == entries.end())
            return;
        // A delivery in progress may still hold the entry (and be running its function): only mark it.
        (*it)->active = false;
        entries.erase(it);
    }
};

Observation::Observation(std::weak_ptr<Registry> registry, quint64 token)
    : m_registry(std::move(registry)), m_token(token)
{
}

Observation::~Observation()
{
    reset();
}

Observation::Observation(Observation&& other) noexcept
    : m_registry(std::move(other.m_registry)), m_token(std::exchange(other.m_token, 0))
{
    other.m_registry.reset();
}

Observation& Observation::operator=(Observation&& other) noexcept
{
    if (this != &other) {
        reset();
        m_registry = std::move(other.m_registry);
        other.m_registry.reset();
        m_token = std::exchange(other.m_token, 0);
    }
    return *this;
}

void Observation::reset()
{
    if (const auto registry = m_registry.lock())
        registry->remove(m_token);
    m_registry.reset();
    m_token = 0;
}

bool Observation::isActive() const
{
    const auto registry = m_registry.lock();
    return registry && std::any_of(registry->entries.begin(), registry->entries.end(),
                                   [this](const auto& e) { return e->token == m_token; });
}

Observable::Observable() : m_registry(std::make_shared<Observation::Registry>()) {}

Observable::~Observable()
{
    // Observers must not hear from an object that is gone, even later in a delivery already under way.
    for (const auto& entry : m_registry->entries)
        entry->active = false;
    m_registry->entries.clear();
}

Observation Observable::observe(const QString& key, ObserverFunction observer)
{
    const quint64 token = m_registry->nextToken++;
    m_registry->entries.push_back(std::make_shared<Observation::Registry::Entry>(
        Observation::Registry::Entry{token, key, std::move(observer)}));
    return Observation(m_registry, token);
}

int Observable::observerCount(const QString& key) const
{
    if (key.isEmpty())
        return int(m_registry->entries.size());
    return int(std::count_if(m_registry->entries.begin(), m_registry->entries.end(),
                             [&](const auto& e) { return e->key == key; }));
}

void Observable::willChangeValueForKey(const QString& key)
{
    deliver({this, key, ChangePhase::Will, SetMutation::None, {}});
}

void Observable::didChangeValueForKey(const QString& key)
{
    deliver({this, key, ChangePhase::Did, SetMutation::None, {}});
}

void Observable::willChangeValueForKey(const QString& key, SetMutation mutation,
                                       const QList<Observable*>& objects)
{
    deliver({this, key, ChangePhase::Will, mutation, objects});
}

void Observable::didChangeValueForKey(const QString& key, SetMutation mutation,
                                      const QList<Observable*>& objects)
{
    deliver({this, key, ChangePhase::Did, mutation, objects});
}

void Observable::deliver(const ChangeNotice& notice)
{
    // Observers may destroy this object, so only locals are used once the first one has been called.
    // The snapshot fixes who hears this notice; an entry removed meanwhile is skipped by its flag.
    std::vector<std::shared_ptr<Observation::Registry::Entry>> recipients;
    for (const auto& entry : m_registry->entries) {
        if (entry->key.isEmpty() || entry->key == notice.key)
            recipients.push_back(entry);
    }
    for (const auto& entry : recipients) {
        if (entry->active && entry->function)
            entry->function(notice);
    }
}

} // namespace nimbrel
