#include "qrterminal.h"

#include <qrencode.h>

#include <memory>

namespace {

constexpr int quietZone = 2; // modules of light border around the symbol

// Light modules are drawn, dark ones left blank, so the code reads right on a dark terminal.
bool isLight(const QRcode* code, int row, int column)
{
    if (row < 0 || column < 0 || row >= code->width || column >= code->width)
        return true;
    return (code->data[row * code->width + column] & 1) == 0;
}

} // namespace

QString renderQrCode(const QByteArray& payload)
{
    std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString(payload.constData(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), &QRcode_free);
    if (!code)
        return {};
    QString out;
    const int first = -quietZone;
    const int last = code->width + quietZone;
    for (int row = first; row < last; row += 2) {
        for (int column = first; column < last; ++column) {
            const bool top = isLight(code.get(), row, column);
            const bool bottom = isLight(code.get(), row + 1, column);
            if (top && bottom)
                out += QChar(0x2588); // full block
            else if (top)
                out += QChar(0x2580); // upper half
            else if (bottom)
                out += QChar(0x2584); // lower half
            else
                out += QLatin1Char(' ');
        }
        out += QLatin1Char('\n');
    }
    return out;
}
