#include "httptool.h"

#include "keloqtcompat_p.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QStringList>
#include <QVariantMap>

namespace {

// Texts reach the digest and the decoder as NUL-terminated strings: a NUL byte ends them.
QByteArray untilFirstNul(const QByteArray& bytes)
{
    const int nul = bytes.indexOf('\0');
    return nul < 0 ? bytes : bytes.left(nul);
}

// Strict JSON (an object or an array); false if the bytes are not exactly that.
bool parseStrictJson(const QByteArray& bytes, QVariant& value)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError)
        return false;
    value = document.toVariant();
    return true;
}

// A body that looks like an object but is not JSON, such as "{key: value, key: value}", is read
// as a map of texts. Keys are trimmed, values are kept as they stand (a caller may need their
// spaces), quotation marks stay, and a part without exactly one ":" is skipped.
QVariantMap parseLooseMap(QString text)
{
    text.remove(QLatin1Char('{')).remove(QLatin1Char('}')).remove(QLatin1Char('\n'));
    QVariantMap map;
    const QStringList parts = kelo_compat::splitAtAnyOf(text, QStringLiteral(";,"));
    for (const QString& part : parts) {
        const QStringList pieces = part.split(QLatin1Char(':'), Qt::KeepEmptyParts);
        if (pieces.size() == 2)
            map.insert(pieces.at(0).trimmed(), pieces.at(1));
    }
    return map;
}

// The one lenient decoder behind both published names.
QVariant decodeLeniently(const QByteArray& data)
{
    QVariant value;
    if (parseStrictJson(data, value))
        return value;
    // Bodies with trailing NULs or garbage after a NUL, or with malformed UTF-8 (replaced by the
    // conversion), still hold readable JSON in front.
    QString text = QString::fromUtf8(untilFirstNul(data));
    if (parseStrictJson(text.toUtf8(), value))
        return value;
    // An empty body decodes to an empty but non-null text: the host gets a value, not "nothing".
    if (text.isNull())
        text = QLatin1String("");
    if (!text.contains(QLatin1Char('{')))
        return QVariant(text.remove(QLatin1Char('\n')));
    return QVariant(parseLooseMap(text));
}

} // namespace

QString HttpTool::createMd5(const QString& text)
{
    const QByteArray digest =
        QCryptographicHash::hash(untilFirstNul(text.toUtf8()), QCryptographicHash::Md5);
    return QString::fromLatin1(digest.toHex());
}

QVariant HttpTool::byteArrayToVariant(const QByteArray& data)
{
    return decodeLeniently(data);
}

QVariant json::byteArrayToVariant(const QByteArray& data)
{
    return decodeLeniently(data);
}
