#pragma once

// A preferences domain: one XML property-list file in $XDG_CONFIG_HOME read and written through
// QSettings with the plist format registered. Values keep their property-list types exactly (a boolean
// stays a boolean, a date stays a date), every write is followed at once by a sync, the file is replaced
// atomically, and a file that cannot be read as a property list is copied aside before it is written
// over, never lost.

#include <QDateTime>
#include <QSettings>
#include <QString>
#include <QVariant>
#include <memory>
#include <optional>

namespace nimbrel {

// The QSettings format for XML property lists (registered once per process).
QSettings::Format plistSettingsFormat();

class SettingsStore
{
public:
    // The domain of a bundle identifier: $XDG_CONFIG_HOME/<identifier>.plist.
    static QString domainPath(const QString& identifier);

    explicit SettingsStore(const QString& path);
    ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    QString path() const { return m_path; }

    // The stored value, or a null QVariant when the key is absent.
    QVariant value(const QString& key) const;
    QStringList keys() const;

    // Typed reads: the value only when it has the expected property-list type, else nullopt.
    // A number is an integer or a real (never a boolean) and is read as a double.
    std::optional<bool> boolValue(const QString& key) const;
    std::optional<double> numberValue(const QString& key) const;
    std::optional<QDateTime> dateValue(const QString& key) const;

    // Sets the value (a null QVariant removes the key) and syncs at once. A value that is not a property
    // list is refused (false, nothing written). Returns whether this write reached the domain; status()
    // tells whether the file it met on disk was unreadable.
    bool setValue(const QString& key, const QVariant& value);
    bool remove(const QString& key) { return setValue(key, QVariant()); }

    // Writes pending changes and re-reads what another process wrote. True when both succeeded.
    bool sync();

    // The outcome of the last sync (or of opening): NoError, AccessError (the file cannot be read or
    // written) or FormatError (the file on disk was not a property-list dictionary; it was kept aside
    // at corruptCopyPath() and, if there were changes to write, written over).
    QSettings::Status status() const { return m_status; }
    // Where an unreadable file was kept before it was written over; empty when none was.
    QString corruptCopyPath() const;

private:
    void reopen();
    void takeStatus();
    void startFresh();

    QString m_path;
    std::unique_ptr<QSettings> m_settings;
    QSettings::Status m_status = QSettings::NoError;
};

} // namespace nimbrel
