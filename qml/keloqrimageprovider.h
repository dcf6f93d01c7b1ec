#pragma once

#include <QQuickImageProvider>

/**
 * "image://kelo-qr/<payload>": a QR code (error correction M, black on white, a quiet zone of
 * four modules) of the percent-decoded payload. Build the address with
 * `"image://kelo-qr/" + encodeURIComponent(payload)` in QML, or take KeloTerminal's qrSource:
 * a raw "#", "?" or "%" in the payload would otherwise end or change the address.
 *
 * With a requested size (Image.sourceSize) each module is as many whole pixels as fit into it;
 * without one, 8 pixels. A payload that cannot be encoded (empty, or too long for a QR code)
 * gives no image, so the Image's status is Image.Error.
 */
class KeloQrImageProvider : public QQuickImageProvider
{
public:
    KeloQrImageProvider();

    QImage requestImage(const QString& id, QSize* size, const QSize& requestedSize) override;

    /// The QR code of @p payload with @p moduleSize pixels per module; null if it cannot be made.
    static QImage render(const QByteArray& payload, int moduleSize, const QSize& fitInto = {});
    /// The image address of @p payload.
    static QString source(const QString& payload);
};
