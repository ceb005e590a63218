#include "pane/PaneIcon.h"

#include <QPainter>
#include <QPainterPath>

namespace nimbrel {

QPixmap drawPaneIcon(int size)
{
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 64.0, size / 64.0);

    // The page.
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x00, 0x00, 0x00, 40));
    p.drawRoundedRect(QRectF(7, 9, 52, 50), 8, 8);
    p.setBrush(QColor(0xfa, 0xfa, 0xfa));
    p.drawRoundedRect(QRectF(6, 7, 52, 50), 8, 8);
    // Its header band.
    QPainterPath band;
    band.addRoundedRect(QRectF(6, 7, 52, 16), 8, 8);
    band.addRect(QRectF(6, 15, 52, 8));
    p.setBrush(QColor(0x35, 0x84, 0xe4));
    p.drawPath(band.simplified());
    // Rings.
    p.setBrush(QColor(0x24, 0x1f, 0x31));
    p.drawRoundedRect(QRectF(18, 3, 5, 10), 2.5, 2.5);
    p.drawRoundedRect(QRectF(41, 3, 5, 10), 2.5, 2.5);

    // Two arrows chasing each other: calendars kept in step.
    QPen arrow(QColor(0x26, 0xa2, 0x69), 4.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    p.setPen(arrow);
    p.setBrush(Qt::NoBrush);
    const QRectF circle(19, 28, 26, 24);
    p.drawArc(circle, 20 * 16, 140 * 16);
    p.drawArc(circle, 200 * 16, 140 * 16);
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x26, 0xa2, 0x69));
    p.drawPolygon(QPolygonF({QPointF(44, 28), QPointF(50, 38), QPointF(39, 37)}));
    p.drawPolygon(QPolygonF({QPointF(20, 52), QPointF(14, 42), QPointF(25, 43)}));
    return pixmap;
}

QIcon paneIcon()
{
    QIcon drawn;
    for (int size : {16, 22, 24, 32, 48, 64, 128})
        drawn.addPixmap(drawPaneIcon(size));
    return QIcon::fromTheme(QStringLiteral("nimbrel-preferences"), drawn);
}

} // namespace nimbrel
