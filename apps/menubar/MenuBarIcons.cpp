#include "MenuBarIcons.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

namespace nimbrel {

namespace {

QColor headerColour(BackgroundAppState state)
{
    switch (state) {
    case BackgroundAppState::Running:
        return QColor(0x1e, 0x88, 0xe5);
    case BackgroundAppState::Stopped:
        return QColor(0x9e, 0x9e, 0x9e);
    case BackgroundAppState::NotResponding:
        return QColor(0xe5, 0x39, 0x35);
    case BackgroundAppState::Checking:
    case BackgroundAppState::Starting:
    case BackgroundAppState::Stopping:
        return QColor(0xf9, 0xa8, 0x25);
    }
    return Qt::gray;
}

QPixmap drawCalendar(BackgroundAppState state, int size)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);

    const qreal unit = size / 16.0;
    const QRectF page(1.5 * unit, 2.5 * unit, 13 * unit, 12 * unit);
    const qreal radius = 1.5 * unit;
    const QColor ink(0x42, 0x42, 0x42);

    QPainterPath outline;
    outline.addRoundedRect(page, radius, radius);
    painter.fillPath(outline, QColor(0xfa, 0xfa, 0xfa));

    // The coloured band across the top of the page carries the state.
    painter.save();
    painter.setClipPath(outline);
    painter.fillRect(QRectF(page.left(), page.top(), page.width(), 4 * unit), headerColour(state));
    painter.restore();
    painter.setPen(QPen(ink, qMax<qreal>(1.0, unit)));
    painter.drawPath(outline);

    if (state == BackgroundAppState::NotResponding) {
        painter.setPen(Qt::NoPen);
        painter.setBrush(headerColour(state));
        painter.drawRect(QRectF(7.2 * unit, 7.5 * unit, 1.6 * unit, 4 * unit));
        painter.drawEllipse(QRectF(7.2 * unit, 12.2 * unit, 1.6 * unit, 1.6 * unit));
    } else if (state != BackgroundAppState::Stopped) {
        // The days of the page; a stopped application shows an empty one.
        painter.setPen(Qt::NoPen);
        painter.setBrush(ink);
        for (int row = 0; row < 2; ++row) {
            for (int column = 0; column < 3; ++column)
                painter.drawRect(
                    QRectF((3.5 + 3.5 * column) * unit, (8.5 + 3 * row) * unit, 2 * unit, 2 * unit));
        }
    }
    return pixmap;
}

} // namespace

QIcon drawnMenuBarIcon(BackgroundAppState state)
{
    QIcon icon;
    for (const int size : {16, 22, 24, 32, 48, 64})
        icon.addPixmap(drawCalendar(state, size));
    return icon;
}

QIcon menuBarIcon(BackgroundAppState state)
{
    const QString name = MenuBarController::iconName(state);
    if (QIcon::hasThemeIcon(name))
        return QIcon::fromTheme(name);
    return drawnMenuBarIcon(state);
}

} // namespace nimbrel
