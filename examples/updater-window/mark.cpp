// SPDX-License-Identifier: MIT
#include "mark.h"

#include <QPainter>
#include <QPen>
#include <QPolygonF>

namespace {

struct Drawing
{
    QColor colour;
    QVector<QPolygonF> lines; ///< in a square of 16 x 16; one of a single point is a dot
};

QPolygonF line(std::initializer_list<QPointF> points)
{
    return QPolygonF(QVector<QPointF>(points));
}

Drawing drawingOf(Mark mark)
{
    switch (mark) {
    case Mark::Note:
        break;
    case Mark::Working:
        return {QColor(0x70, 0x78, 0x84), {line({{4.5, 8}}), line({{8, 8}}), line({{11.5, 8}})}};
    case Mark::Good:
        return {QColor(0x2b, 0x9a, 0x5a), {line({{4.6, 8.3}, {7, 10.7}, {11.4, 5.6}})}};
    case Mark::Warning:
        return {QColor(0xd1, 0x7d, 0x00), {line({{8, 4.2}, {8, 8.6}}), line({{8, 11.6}})}};
    case Mark::Bad:
        return {QColor(0xcf, 0x39, 0x3c),
            {line({{5.4, 5.4}, {10.6, 10.6}}), line({{10.6, 5.4}, {5.4, 10.6}})}};
    }
    return {QColor(0x2f, 0x7c, 0xd0), {line({{8, 7.6}, {8, 11.8}}), line({{8, 4.6}})}};
}

} // namespace

QPixmap pixmapOf(Mark mark, int size, qreal scale)
{
    const Drawing drawing = drawingOf(mark);
    QPixmap pixmap(QSize(size, size) * scale);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(pixmap.width() / 16.0, pixmap.height() / 16.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(drawing.colour);
    painter.drawEllipse(QRectF(0.5, 0.5, 15, 15));
    painter.setPen(QPen(Qt::white, 1.8, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.setBrush(Qt::NoBrush);
    for (const QPolygonF &line : drawing.lines) {
        if (line.size() == 1)
            painter.drawPoint(line.first());
        else
            painter.drawPolyline(line);
    }
    painter.end();
    pixmap.setDevicePixelRatio(scale);
    return pixmap;
}
