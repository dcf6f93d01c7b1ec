// The published reply helpers: MD5 digests and the lenient body decoder under both names.
#include "httptool.h"

#include <QJsonDocument>
#include <QtTest>

// A text as "text:<text>", anything else as compact JSON: one comparison checks the kind too.
static QString describe(const QVariant& value)
{
    if (value.userType() == QMetaType::QString)
        return "text:" + value.toString();
    if (value.userType() != QMetaType::QVariantMap && value.userType() != QMetaType::QVariantList)
        return QStringLiteral("unexpected %1").arg(value.typeName());
    return QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact);
}

class TestHttpTool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void md5_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("digest");
        // RFC 1321's values, then the text's UTF-8 bytes up to the first NUL.
        QTest::newRow("empty") << QString() << "d41d8cd98f00b204e9800998ecf8427e";
        QTest::newRow("abc") << "abc"
                             << "900150983cd24fb0d6963f7d28e17f72";
        QTest::newRow("utf-8 bytes")
            << QString::fromUtf8("é") << "66ddcd97cfdeabb2f6fb8a999b4bc76f";
        QTest::newRow("cut at nul")
            << QString::fromUtf8("abc\0def", 7) << "900150983cd24fb0d6963f7d28e17f72";
    }
    void md5()
    {
        QFETCH(QString, text);
        QTEST(HttpTool::createMd5(text), "digest");
    }
    void lenientDecoding_data();
    void lenientDecoding()
    {
        QFETCH(QByteArray, body);
        QTEST(describe(HttpTool::byteArrayToVariant(body)), "decoded");
        QTEST(describe(json::byteArrayToVariant(body)), "decoded");
    }
};

void TestHttpTool::lenientDecoding_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("decoded");
    const auto row = [](const char* name, const QByteArray& body, const char* decoded) {
        QTest::newRow(name) << body << QString::fromUtf8(decoded);
    };
    // 1. strict JSON
    row("object", R"({"a":1})", R"({"a":1})");
    row("array of every kind", R"([1,2.5,"x",null,true,[],{}])", R"([1,2.5,"x",null,true,[],{}])");
    // 2. JSON again after the UTF-8 round trip cut at the first NUL
    row("nul and garbage", QByteArray("{\"a\":1}\0garbage}", 16), R"({"a":1})");
    row("malformed utf-8 replaced", "{\"a\":\"\xff\"}", "{\"a\":\"\xef\xbf\xbd\"}");
    // 3. plain text: no "{" left, line feeds removed, carriage returns kept; never invalid
    row("empty", "", "text:");
    row("crlf lines", "OK\r\nb\n", "text:OK\rb");
    row("json scalar", "null", "text:null");
    row("brace after nul ignored", QByteArray("OK\0{a:1}", 8), "text:OK");
    // 4. loose key/value list: keys trimmed, values not, quotes kept, all values texts
    row("loose", "{a:1, \t b : 2 ; c:d:e}", R"({"a":"1","b":" 2 "})");
    row("trailing comma", R"({"a":"1",})", R"({"\"a\"":"\"1\""})");
    row("crlf values, line feed in a key", "{a:1\r\n,b\n:2\r\n}", R"({"a":"1\r","b":"2\r"})");
    row("empty key and value", "{:;x:}", R"({"":"","x":""})");
    row("no colon anywhere", "a{b", "{}");
    row("braces anywhere are dropped", "x{y:{1}}z", R"({"xy":"1z"})");
}

QTEST_GUILESS_MAIN(TestHttpTool)
#include "tst_httptool.moc"
