#pragma once

// One panel per session: the first program owns com.quorvia.NimbrelPreferences on the session bus and
// answers its Activate method by raising its window; a later start calls Activate and leaves.

#include <QDBusConnection>
#include <QObject>
#include <functional>
#include <optional>

namespace nimbrel {

inline const QString kPreferencesServiceName = QStringLiteral("com.quorvia.NimbrelPreferences");
inline const QString kPreferencesObjectPath = QStringLiteral("/com/quorvia/NimbrelPreferences");

class PreferencesService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.quorvia.NimbrelPreferences")
public:
    enum class Claim
    {
        Owner,         // this program serves the name: go on
        OtherActivated // another instance runs and was asked to come to the front: leave with 0
    };

    PreferencesService(const QDBusConnection& connection, std::function<void()> activate);

    // Takes the name, or asks its owner to come to the front. nullopt when the bus cannot be used (the
    // program then runs without the single-instance guard); *error says why.
    std::optional<Claim> claim(QString* error = nullptr);

public slots:
    Q_SCRIPTABLE void Activate();

private:
    QDBusConnection m_connection;
    std::function<void()> m_activate;
};

} // namespace nimbrel
