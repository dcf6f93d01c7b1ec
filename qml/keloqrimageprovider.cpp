#include "keloqrimageprovider.h"

#include <QPainter>
#include <QUrl>

#include <qrencode.h>

#include <memory>

namespace {

constexpr int QuietZone = 4;         // modules of white around the symbol, as readers expect
constexpr int DefaultModuleSize = 8; // pixels per module without a requested size

} // namespace

KeloQrImageProvider::KeloQrImageProvider() : QQuickImageProvider(QQuickImageProvider::Image) {}

QImage KeloQrImageProvider::requestImage(const QString& id, QSize* size, const QSize& requestedSize)
{
    // The engine hands over the address after "image://kelo-qr/" with part of its escapes
    // undone; undoing the rest gives back the payload that source() encoded.
    const QByteArray payload = QByteArray::fromPercentEncoding(id.toUtf8());
    const QImage image = render(payload, DefaultModuleSize, requestedSize);
    if (size)
        *size = image.size();
    return image;
}

QImage KeloQrImageProvider::render(const QByteArray& payload, int moduleSize, const QSize& fitInto)
{
    // libqrencode refuses an empty payload and one too long for any QR code: no image.
    std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeData(payload.size(), reinterpret_cast<const unsigned char*>(payload.data()), 0,
                          QR_ECLEVEL_M),
        &QRcode_free);
    if (!code)
        return {};
    const int modules = code->width + 2 * QuietZone;
    if (fitInto.isValid() && !fitInto.isEmpty()) {
        const int side = qMin(fitInto.width() > 0 ? fitInto.width() : fitInto.height(),
                              fitInto.height() > 0 ? fitInto.height() : fitInto.width());
        moduleSize = qMax(1, side / modules);
    }
    QImage image(modules * moduleSize, modules * moduleSize, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    for (int row = 0; row < code->width; ++row) {
        for (int column = 0; column < code->width; ++column) {
            if (code->data[row * code->width + column] & 1)
                painter.fillRect((column + QuietZone) * moduleSize, (row + QuietZone) * moduleSize,
                                 moduleSize, moduleSize, Qt::black);
        }
    }
    return image;
}

QString KeloQrImageProvider::source(const QString& payload)
{
    return QStringLiteral("image://kelo-qr/") +
           QString::fromLatin1(QUrl::toPercentEncoding(payload));
}
