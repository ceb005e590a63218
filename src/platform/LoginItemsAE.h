#pragma once

// The user's login items (the applications started when the user logs in), kept as XDG Autostart
// desktop entries in $XDG_CONFIG_HOME/autostart/ (default ~/.config/autostart/).
//
// An item is a dictionary with exactly two entries:
//   "URL"    — QUrl: for entries this module wrote, the directory URL of the app bundle the entry starts
//              (recorded as X-Nimbrel-Bundle); for foreign entries, the file URL of the program that
//              their Exec line starts (a bare name is looked up in PATH; unresolvable names give the file
//              URL of the name as written);
//   "Hidden" — bool: launch without showing a window (X-Nimbrel-Hidden; never XDG's Hidden=, which
//              marks an entry as deleted — such entries are not login items and are not listed).
// Items are listed in file-name order of the entries; indices are zero-based into that order.
// Foreign entries are listed and removed as whole files, never rewritten.
//
// Results are the classic 16-bit OS error codes below; broken preconditions are fatal: the module
// prints "LoginItemsAE:<line>: failed assertion `<expression>'" to standard error and aborts.

#include <QUrl>
#include <QVariantList>
#include <memory>

namespace nimbrel {

using OSStatus = int;
inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus ioErr = -36;                      // an entry could not be written or deleted
inline constexpr OSStatus fnfErr = -43;                     // the URL names no existing file
inline constexpr OSStatus errAEIllegalIndex = -1719;        // no item at that index
inline constexpr OSStatus coreFoundationUnknownErr = -4960; // an item could not be made

// The folder that holds the entries.
QString loginItemsFolder();

// The "URL" of the item that starts the app bundle or program at `path`; the link matches items
// against it with plain QUrl equality, so every "URL" this module produces for its own entries is made
// by this function: the file URL of the absolute, cleaned path, ending in "/" unless the path names an
// existing file that is not a folder. An app bundle is thus always "file:///…/Name.app/" (the form of a
// directory URL), even once it has been deleted; a plain executable is "file:///…/name".
QUrl loginItemURLForPath(const QString& path);

// Lists the login items. itemsPtr must be non-null and point to null ("itemsPtr != NULL",
// "*itemsPtr == NULL"); on success it receives the new list, on failure it stays null. A missing
// autostart folder is an empty list, not an error.
OSStatus LIAECopyLoginItems(std::unique_ptr<QVariantList>* itemsPtr);

// Appends an item for the file or app bundle at `path` (which must exist, "item != NULL" is asserted
// for an empty path). An app bundle (folder with Info.plist naming CFBundleExecutable) is started
// through its executable and its entry is named "<CFBundleIdentifier>.desktop"; a plain executable file
// gets "<file name>.desktop" (a bundle without identifier: "<folder name>.desktop"); an entry of that
// name is replaced. Anything else (a folder that is no app bundle, a file that is not executable) is
// coreFoundationUnknownErr. Entries carry Type, Name, Exec, X-GNOME-Autostart-enabled,
// X-GNOME-Autostart-Delay and, for a bundle whose Info.plist has LSUIElement true (a tray companion),
// X-KDE-autostart-after=panel. The delay is 2 seconds for a tray companion (the panel's tray should
// be up first) and 0 otherwise.
OSStatus LIAEAddRefAtEnd(const QString& path, bool hideIt);

// Same from a file URL; a URL that is not a local file, or names nothing that exists, is fnfErr.
OSStatus LIAEAddURLAtEnd(const QUrl& item, bool hideIt);

// Deletes the entry of the item at `itemIndex` of the list LIAECopyLoginItems returns
// ("itemIndex >= 0" is asserted).
OSStatus LIAERemove(qsizetype itemIndex);

} // namespace nimbrel
