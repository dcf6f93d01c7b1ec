// The published reply helpers: MD5 digests and the lenient body decoder under both names.
#include "httptool.h"

#include <QtTest>

namespace {

// A typed rendering of a decoded value, so that one text comparison also checks every type:
// s'text' for a string (CR and LF shown as \r and \n), i<n> for an integer, d<n> for a double,
// b<bool>, null, [..] for a list and {key=value,..} for a map (keys in map order).
QString describe(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::QString:
        return "s'" + value.toString().replace("\r", "\\r").replace("\n", "\\n") + "'";
    case QMetaType::LongLong:
        return "i" + value.toString();
    case QMetaType::Double:
        return "d" + value.toString();
    case QMetaType::Bool:
        return "b" + value.toString();
    case QMetaType::Nullptr:
        return "null";
    case QMetaType::QVariantList: {
        QStringList items;
        for (const QVariant& item : value.toList())
            items << describe(item);
        return "[" + items.join(',') + "]";
    }
    case QMetaType::QVariantMap: {
        QStringList items;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            items << it.key() + "=" + describe(it.value());
        return "{" + items.join(',') + "}";
    }
    default:
        return QString("unexpected type %1").arg(value.typeName());
    }
}

} // namespace

class TestHttpTool : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void md5_data();
    void md5();
    void lenientDecoding_data();
    void lenientDecoding();
    void emptyBodyIsAnEmptyText();
};

void TestHttpTool::md5_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("digest");
    const auto row = [](const char* name, const QString& text, const char* digest) {
        QTest::newRow(name) << text << QString(digest);
    };
    // The test suite of RFC 1321.
    row("rfc empty", "", "d41d8cd98f00b204e9800998ecf8427e");
    row("rfc a", "a", "0cc175b9c0f1b6a831c399e269772661");
    row("rfc abc", "abc", "900150983cd24fb0d6963f7d28e17f72");
    row("rfc message digest", "message digest", "f96b697d7cb7938d525a2f31aaf161d0");
    row("rfc alphabet", "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b");
    row("rfc alphanumeric", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
        "d174ab98d277d9f5a5611c2c9f419d9f");
    row("rfc digits", QString("1234567890").repeated(8), "57edf4a22be3c955ac49da2e2107b67a");
    row("utf-8 bytes", QString::fromUtf8("é"), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
    row("cut at nul", QString::fromUtf8("abc\0def", 7), "900150983cd24fb0d6963f7d28e17f72");
    row("nul first", QString::fromUtf8("\0abc", 4), "d41d8cd98f00b204e9800998ecf8427e");
}

void TestHttpTool::md5()
{
    QFETCH(QString, text);
    QFETCH(QString, digest);
    QCOMPARE(HttpTool::createMd5(text), digest);
}

void TestHttpTool::lenientDecoding_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("decoded");
    const auto row = [](const char* name, const QByteArray& body, const char* decoded) {
        QTest::newRow(name) << body << QString::fromUtf8(decoded);
    };
    // 1. strict JSON
    row("object", R"({"a":1})", "{a=i1}");
    row("array of every kind", R"([1,2.5,"x",null,true,[],{}])", "[i1,d2.5,s'x',null,btrue,[],{}]");
    row("nested, keys sorted", R"({"z":{"b":[1]},"a":"é"})", "{a=s'é',z={b=[i1]}}");
    // 2. JSON again after the UTF-8 round trip cut at the first NUL
    row("nul and garbage", QByteArray("{\"a\":1}\0garbage}", 16), "{a=i1}");
    row("trailing nuls", QByteArray("[\"x\"]\0\0\0", 8), "[s'x']");
    row("malformed utf-8 replaced", "{\"a\":\"\xff\"}", "{a=s'\xef\xbf\xbd'}");
    // 3. plain text: no "{" left, line feeds removed, carriage returns kept
    row("ok line", "OK\n", "s'OK'");
    row("crlf lines", "a\r\nb\r\n", "s'a\\rb\\r'");
    row("json scalar", "null", "s'null'");
    row("brace after nul ignored", QByteArray("OK\0{a:1}", 8), "s'OK'");
    row("closing braces only", "}}a:b", "s'}}a:b'");
    // 4. loose key/value list
    row("loose", "{a:1, b : 2 ; c:d:e}", "{a=s'1',b=s' 2 '}");
    row("trailing comma", R"({"a":"1",})", R"({"a"=s'"1"'})");
    row("crlf values", "{a:1\r\n,b:2\r\n}", "{a=s'1\\r',b=s'2\\r'}");
    row("line feed inside a key", "{a\n:1}", "{a=s'1'}");
    row("later key wins", "{a:1;a:2}", "{a=s'2'}");
    row("keys trimmed of tabs, values not", "{\t k \t: v }", "{k=s' v '}");
    row("empty key and value", "{:;x:}", "{=s'',x=s''}");
    row("no colon anywhere", "a{b", "{}");
    row("lone brace", "{", "{}");
    row("braces anywhere are dropped", "x{y:{1}}z", "{xy=s'1z'}");
}

void TestHttpTool::lenientDecoding()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, decoded);
    QCOMPARE(describe(HttpTool::byteArrayToVariant(body)), decoded);
    QCOMPARE(describe(json::byteArrayToVariant(body)), decoded);
}

void TestHttpTool::emptyBodyIsAnEmptyText()
{
    for (const QByteArray& body : {QByteArray(), QByteArray(""), QByteArray("\n\n")}) {
        for (const QVariant& value :
             {HttpTool::byteArrayToVariant(body), json::byteArrayToVariant(body)}) {
            QVERIFY(value.isValid());
            QVERIFY(!value.isNull());
            QCOMPARE(value.userType(), int(QMetaType::QString));
            QCOMPARE(value.toString(), QString(""));
        }
    }
}

QTEST_GUILESS_MAIN(TestHttpTool)
#include "tst_httptool.moc"
