#pragma once

// A bundle is a folder with an Info.plist (XML property list) and a Resources/ folder; a resource is
// found by name and type as Resources/<name>.<type>. The pane's bundle holds the two companion
// applications as app bundles among its resources, and its string table.

#include <QString>
#include <QVariant>
#include <QVariantMap>
#include <optional>

namespace nimbrel {

class Bundle
{
public:
    // Opens the bundle at `path`. A folder without a readable Info.plist gives an invalid bundle whose
    // lookups answer null; `error()` says why.
    explicit Bundle(const QString& path);
    Bundle() = default;

    bool isValid() const { return m_valid; }
    QString error() const { return m_error; }

    QString bundlePath() const { return m_path; }
    QString resourcePath() const;
    QString infoPlistPath() const;

    const QVariantMap& infoDictionary() const { return m_info; }
    QVariant objectForInfoDictionaryKey(const QString& key) const { return m_info.value(key); }
    QString bundleIdentifier() const;
    // Path of the executable named by CFBundleExecutable, inside the bundle folder; empty when unnamed.
    QString executablePath() const;

    // Resources/<name>.<type> (type may be empty: Resources/<name>); empty when it does not exist.
    QString pathForResource(const QString& name, const QString& type) const;

    // The app bundle among the resources with this name (Resources/<name>.app), if it exists.
    std::optional<Bundle> appBundleForResource(const QString& name) const;

    // Loads the string table `table` (Resources/<table>_<language>.qm, falling back to English) into
    // the application, so that localizedString() and QCoreApplication::translate(table, key) find it.
    // Loading the same table again is harmless. Returns false when no table file could be loaded.
    bool loadStringTable(const QString& table) const;

    // The pane's bundle: $NIMBREL_PANE_BUNDLE, else ../lib/nimbrel/Nimbrel.prefPane beside the program.
    static QString defaultPaneBundlePath();

private:
    QString m_path;
    QVariantMap m_info;
    bool m_valid = false;
    QString m_error;
};

} // namespace nimbrel
