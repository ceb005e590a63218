#pragma once

// The URL layout: "/" is the principal and the calendar home, "/<uid>/" a published calendar,
// "/<uid>/<name>" one of its items. A path is decoded segment by segment; anything that could leave a
// calendar folder or name a hidden file ("..", ".", a "/" or NUL inside a segment, a leading dot,
// control characters, bad UTF-8) makes the path invalid, before any file is looked at.

#include <QByteArray>
#include <QString>

namespace nimbrel::publish {

struct DavPath
{
    enum Kind { Invalid, Root, WellKnown, Calendar, Item };
    Kind kind = Invalid;
    QString calendar; // uid
    QString item;     // file name

    // Parses a request target or an href (an absolute URL's path is used). Query and fragment are ignored.
    static DavPath parse(const QByteArray& target);

    // The canonical href of a calendar or an item, percent-encoded.
    static QByteArray calendarHref(const QString& uid);
    static QByteArray itemHref(const QString& uid, const QString& name);
};

// Whether `segment` is acceptable as a calendar uid or an item file name.
bool isSafeSegment(const QString& segment);

} // namespace nimbrel::publish
