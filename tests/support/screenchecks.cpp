#include "screenchecks.h"

#include "testwait.h"

#include <QHash>
#include <QProcess>
#include <QStandardPaths>

#include <cstring>

QPoint findPicture(const QImage& screen, const QImage& picture)
{
    const QImage s = screen.convertToFormat(QImage::Format_RGB32);
    const QImage p = picture.convertToFormat(QImage::Format_RGB32);
    const QRgb first = p.pixel(0, 0);
    for (int y = 0; y + p.height() <= s.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(s.constScanLine(y));
        for (int x = 0; x + p.width() <= s.width(); ++x) {
            if (row[x] != first)
                continue;
            bool same = true;
            for (int py = 0; same && py < p.height(); ++py)
                same = memcmp(s.constScanLine(y + py) + 4 * x, p.constScanLine(py),
                              size_t(4 * p.width())) == 0;
            if (same)
                return {x, y};
        }
    }
    return {-1, -1};
}

QString whyBlank(const QImage& screen)
{
    const QImage image = screen.convertToFormat(QImage::Format_RGB32);
    if (image.isNull())
        return QStringLiteral("no picture");
    QHash<QRgb, int> colours;
    for (int y = 0; y < image.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            ++colours[row[x]];
    }
    int most = 0;
    for (int count : qAsConst(colours))
        most = qMax(most, count);
    const int pixels = image.width() * image.height();
    if (most >= pixels * 85 / 100)
        return QStringLiteral("one colour covers %1%").arg(100.0 * most / pixels);
    if (colours.size() < 50)
        return QStringLiteral("only %1 colours").arg(colours.size());
    return QString();
}

QString readQrCode(const QString& path, QString* error)
{
    const QString zbarimg = QStandardPaths::findExecutable(QStringLiteral("zbarimg"));
    if (zbarimg.isEmpty()) {
        *error = QStringLiteral("zbarimg is missing: run tools/install-deps.sh");
        return QString();
    }
    QProcess reader;
    reader.start(zbarimg, {QStringLiteral("--raw"), QStringLiteral("-q"), path});
    if (!reader.waitForFinished(2 * kWait) || reader.exitCode() != 0) {
        *error = QStringLiteral("zbarimg found no QR code in %1 (status %2)")
                     .arg(path)
                     .arg(reader.exitCode());
        return QString();
    }
    return QString::fromUtf8(reader.readAllStandardOutput()).trimmed();
}
