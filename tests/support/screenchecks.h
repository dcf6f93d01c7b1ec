#pragma once

#include <QImage>
#include <QPoint>
#include <QString>

// What the terminal's screenshot suites check on a screen, offscreen or in a live window.

/// Where @p picture appears, pixel for pixel, in @p screen; (-1, -1) if nowhere.
QPoint findPicture(const QImage& screen, const QImage& picture);

/// Why @p screen does not look drawn (one colour covers nearly all of it, or it has too few
/// colours for text and detail); empty when it does.
QString whyBlank(const QImage& screen);

/// The text of the QR code in the picture at @p path, read by zbarimg (zbar-tools); empty with
/// @p error set when there is none or zbarimg is missing.
QString readQrCode(const QString& path, QString* error);
