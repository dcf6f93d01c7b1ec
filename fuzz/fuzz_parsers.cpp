// Every reply and notification parser on arbitrary text: no crash, and no output touched when
// the text is not a JSON object.
#include "libcmn.h"

#include <QJsonDocument>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
    const QString text = QString::fromUtf8(bytes);
    const bool isObject = QJsonDocument::fromJson(text.toUtf8()).isObject();

    const QString sentinel = QStringLiteral("untouched");
    QString msg = sentinel, code = sentinel, token = sentinel, session = sentinel, name = sentinel;
    int id = 77, appId = 77;
    QJsonObject dt{{QStringLiteral("k"), 1}};

    const int results[] = {
        Libcmn::getErrMsg(text, &msg),
        Libcmn::getNotifyDt(text, code, dt),
        Libcmn::getUserId(text, id, name),
        Libcmn::getSesId(text, session),
        Libcmn::getInvoiceQR(text, msg, code, &token, &appId),
    };
    Libcmn::getNotifyMsg(text);
    Libcmn::parseWsSid(text, &session);
    Libcmn::getErrMsg(text, nullptr);
    Libcmn::getInvoiceQR(text, msg, code, nullptr, nullptr);

    if (!isObject) {
        for (int result : results)
            if (result != -1)
                abort();
        if (msg != sentinel || code != sentinel || token != sentinel || session != sentinel ||
            name != sentinel || id != 77 || appId != 77 || dt.value(QStringLiteral("k")) != 1)
            abort();
    }
    return 0;
}
