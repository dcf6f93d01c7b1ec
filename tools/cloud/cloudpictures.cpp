// The simulator's pictures of the menu's dishes.
#include "cloudstate_p.h"

#include <QBuffer>
#include <QColor>
#include <QCryptographicHash>
#include <QImage>

#include <cmath>

namespace kelocloud {

namespace detail {

// ---------------------------------------------------------------------------------------------
// Pictures: a plate with a dish-coloured pattern, made from a digest of the dish, so the same
// fixture always serves the same bytes and a new "img_crc" gives a new picture.

QByteArray renderPicture(const Dish& dish)
{
    const QByteArray seed = QCryptographicHash::hash(
        QStringLiteral("%1|%2|%3").arg(dish.id).arg(dish.name, dish.imgCrc).toUtf8(),
        QCryptographicHash::Sha256);
    const auto byte = [&](int i) { return int(quint8(seed.at(i))); };
    const int hue = byte(0) * 360 / 256;
    const QColor background = QColor::fromHsv(hue, 60 + byte(1) % 60, 230);
    const QColor food = QColor::fromHsv((hue + 150 + byte(2) % 60) % 360, 150 + byte(3) % 90, 200);
    const QColor garnish = QColor::fromHsv((hue + 90) % 360, 200, 150 + byte(4) % 80);
    const int pattern = byte(5) % 3;
    const int period = 6 + byte(6) % 10;

    constexpr int size = 120;
    QImage image(size, size, QImage::Format_RGB32);
    quint32 noise = quint32(byte(7)) << 8 | quint32(byte(8));
    for (int y = 0; y < size; ++y) {
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < size; ++x) {
            const double dx = x - size / 2.0, dy = y - size / 2.0;
            const double r = std::sqrt(dx * dx + dy * dy);
            QColor colour = ((x / period + y / period) % 2) ? background : background.darker(108);
            if (r < 52)
                colour = r > 48 ? QColor(210, 210, 215) : QColor(245, 245, 240); // plate and rim
            if (r < 38) {
                const bool dot = pattern == 0   ? ((x / 5 + y / 7) % 3 == 0)
                                 : pattern == 1 ? (int(r) % period < 2)
                                                : (((x + y) / 4) % 4 == 0);
                colour = dot ? garnish : food.darker(100 + int(r));
                noise = noise * 1103515245u + 12345u; // a little texture on the food
                colour = colour.lighter(96 + int(noise >> 28));
            }
            line[x] = colour.rgb();
        }
    }
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

} // namespace detail

} // namespace kelocloud
