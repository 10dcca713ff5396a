#include "Skeldrin/ui/MenuBarIcon.h"

#include <QPainter>

namespace skeldrin::MenuBarIcon {

QImage artwork()
{
    // The largest size: scaled down smoothly for every tray size.
    return QImage(QStringLiteral(":/StatusIcon@4x.png"));
}

QImage image(const QImage& art, const QColor& glyph, std::optional<QColor> badge, int side)
{
    QImage result(side, side, QImage::Format_ARGB32_Premultiplied);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    const qreal scale = side / std::max(canvas.width(), canvas.height());
    painter.translate((side - canvas.width() * scale) / 2, (side - canvas.height() * scale) / 2);
    painter.scale(scale, scale);

    // The artwork is a monochrome template: only its alpha counts, tinted with the glyph colour.
    QImage tinted = art.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    {
        QPainter tint(&tinted);
        tint.setCompositionMode(QPainter::CompositionMode_SourceIn);
        tint.fillRect(tinted.rect(), glyph);
    }
    const qreal height = 15;
    const qreal width = art.height() > 0 ? height * art.width() / art.height() : height;
    painter.drawImage(QRectF(0.5, canvas.height() - 1.5 - height, width, height), tinted);

    if (badge) {
        painter.setCompositionMode(QPainter::CompositionMode_DestinationOut);
        painter.setPen(Qt::NoPen);
        painter.setBrush(Qt::black);
        painter.drawEllipse(notchRect);
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        painter.setBrush(*badge);
        painter.drawEllipse(badgeRect);
    }
    return result;
}

} // namespace skeldrin::MenuBarIcon
