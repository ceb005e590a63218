#pragma once

// Small shared utilities: nil-safe equality, list conveniences, mailto escaping, the user's own e-mail
// address, a fire-and-forget web request and the start-up guard for old systems.

#include <QList>
#include <QString>
#include <QVariant>
#include <functional>

namespace nimbrel {

class Bundle;

// True if both are null (invalid) or both hold equal values; false if exactly one is null.
bool valuesEqual(const QVariant& a, const QVariant& b);

// Pointer form: true for the same pointer (two nulls included), false if exactly one is null,
// else the objects' own equality.
template <class T> bool valuesEqual(const T* a, const T* b)
{
    if (a == b)
        return true;
    if (!a || !b)
        return false;
    return *a == *b;
}

// The element at index 0, or a default-constructed value (null pointer, null QVariant) when empty.
template <class T> T firstObject(const QList<T>& list)
{
    return list.isEmpty() ? T{} : list.first();
}

// Removes the element at index 0; does nothing on an empty list.
template <class T> void removeFirstObject(QList<T>& list)
{
    if (!list.isEmpty())
        list.removeFirst();
}

// Percent-escapes a string (UTF-8) for use in a mailto URL: the characters ?=:@%& stay as they are,
// so a prepared URL keeps its query structure and an existing escape is not escaped twice; the blank
// and every character never legal in a URL are escaped.
QString stringByMailToEncoding(const QString& string);

class PrefPaneUtilities
{
public:
    // The user's own e-mail address: $EMAIL, else the KDE e-mail defaults, else the empty string.
    static QString userEmail();

    // Starts a GET request for the URL and ignores the answer (redirects are followed).
    static void getNothingFromURL(const QString& url);

    // The start-up guard: returns at once on 10.4 or later; otherwise shows an alert (texts from the
    // string table `table` of `bundle`), opens the system vendor's page on "More Info...", and quits.
    static void tigerRequired(const Bundle& bundle, const QString& table);

    // The alert of the start-up guard, replaceable in tests. Returns the button chosen.
    enum class AlertButton
    {
        Default,
        Alternate
    };
    struct AlertTexts
    {
        QString title, message, defaultButton, alternateButton;
    };
    using AlertFunction = std::function<AlertButton(const AlertTexts&)>;
    using UrlOpener = std::function<void(const QString& url)>;
    using Terminator = std::function<void()>;
    // Passing an empty function restores the default for that hook.
    static void setStartupGuardHooks(AlertFunction alert, UrlOpener openUrl, Terminator terminate);

    // The page "More Info..." opens: the system vendor's home page (os-release HOME_URL) with a fallback.
    static QString vendorProductPage();
};

} // namespace nimbrel
