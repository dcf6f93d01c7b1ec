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

namespace {

QByteArray encodePng(const QImage& image)
{
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

quint32 crc32(const QByteArray& data)
{
    quint32 crc = 0xffffffffu;
    for (const char c : data) {
        crc ^= quint8(c);
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

void appendBigEndian(QByteArray* out, quint32 v)
{
    out->append(char(v >> 24)).append(char(v >> 16)).append(char(v >> 8)).append(char(v));
}

// A PNG chunk is its length (4 bytes), type (4), data and CRC (4); IEND is the last 12 bytes.
constexpr int chunkOverhead = 12;

/// @p png grown to @p bytes by a private ancillary chunk "keLp" before IEND, which decoders skip;
/// its data comes from @p seed, so that each dish's picture differs from the others.
QByteArray padPng(const QByteArray& png, int bytes, const QByteArray& seed)
{
    const int fill = bytes - png.size() - chunkOverhead;
    QByteArray chunk("keLp");
    QByteArray block = seed;
    chunk.reserve(fill + 4);
    while (chunk.size() < fill + 4) {
        block = QCryptographicHash::hash(block, QCryptographicHash::Sha256);
        chunk.append(block.left(fill + 4 - chunk.size()));
    }
    QByteArray out = png.left(png.size() - chunkOverhead);
    appendBigEndian(&out, quint32(fill));
    out.append(chunk);
    appendBigEndian(&out, crc32(chunk));
    out.append(png.right(chunkOverhead));
    return out;
}

} // namespace

QByteArray renderPicture(const Dish& dish, int bytes)
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
    if (bytes <= 0)
        return encodePng(image);
    // A picture of a given size: the largest drawing that leaves room for the padding chunk.
    for (const int side : {size, 96, 64, 48, 32, 16}) {
        const QByteArray png = encodePng(
            side == size ? image
                         : image.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation));
        if (png.size() + chunkOverhead <= bytes)
            return padPng(png, bytes, seed);
    }
    return {};
}

} // namespace detail

} // namespace kelocloud
