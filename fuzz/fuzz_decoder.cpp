// The lenient reply decoder on arbitrary bodies: never an invalid value, both names agree, and
// the MD5 helper always gives 32 hex digits.
#include "httptool.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray body(reinterpret_cast<const char*>(data), int(size));
    const QVariant first = HttpTool::byteArrayToVariant(body);
    const QVariant second = json::byteArrayToVariant(body);
    if (!first.isValid() || first != second)
        abort();
    if (HttpTool::createMd5(QString::fromUtf8(body)).size() != 32)
        abort();
    return 0;
}
