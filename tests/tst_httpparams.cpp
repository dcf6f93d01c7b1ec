// HttpParams and QMyQuery: order, duplicates, the clear flag, sorting and the three renderings.
#include "httpparams.h"
#include "qmyquery.h"

#include <QJsonObject>
#include <QtTest>

namespace {
struct Add
{
    QString key;
    QVariant value;
    bool clear;
};
using Adds = QList<Add>;

HttpParams build(const Adds& adds)
{
    HttpParams params;
    for (const Add& add : adds)
        params.add(add.key, add.value, add.clear);
    return params;
}

using Pairs = QList<QPair<QString, QString>>;
} // namespace
Q_DECLARE_METATYPE(Adds)

class TestHttpParams : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void rendering_data();
    void rendering();
    void sort_data();
    void sort();
    void copiesAreIndependentAndParentless();
    void myQueryKeepsOrderAndDuplicates();
};

void TestHttpParams::rendering_data()
{
    QTest::addColumn<Adds>("adds");
    QTest::addColumn<QString>("text");    // toString()
    QTest::addColumn<QByteArray>("body"); // post(), also the GET query text
    QTest::addColumn<Pairs>("decoded");   // what a server decodes from it

    const QString json = QStringLiteral("{\"a\":\"b c\"}");
    const QString unicode = QStringLiteral("caf\u00e9 \u4e2d");
    QTest::newRow("empty") << Adds{} << "" << QByteArray() << Pairs{};
    QTest::newRow("order kept, space raw")
        << Adds{{"a", 1, false}, {"b", "x y", false}} << "a=1&b=x y" << QByteArray("a=1&b=x y")
        << Pairs{{"a", "1"}, {"b", "x y"}};
    QTest::newRow("duplicates kept") << Adds{{"k", "1", false}, {"k", "2", false}} << "k=1&k=2"
                                     << QByteArray("k=1&k=2") << Pairs{{"k", "1"}, {"k", "2"}};
    QTest::newRow("clear empties first")
        << Adds{{"a", 1, false}, {"b", 2, false}, {"c", 3, false}, {"k", "v", true}} << "k=v"
        << QByteArray("k=v") << Pairs{{"k", "v"}};
    QTest::newRow("empty key and value")
        << Adds{{"", "v", false}, {"e", "", false}} << "=v&e=" << QByteArray("=v&e=")
        << Pairs{{"", "v"}, {"e", ""}};
    QTest::newRow("delimiters escaped on the wire only")
        << Adds{{"k=&", "a&b=c", false}} << "k=&=a&b=c" << QByteArray("k%3D%26=a%26b%3Dc")
        << Pairs{{"k=&", "a&b=c"}};
    QTest::newRow("percent and plus")
        << Adds{{"p", "100%", false}, {"q", "1+1", false}} << "p=100%&q=1+1"
        << QByteArray("p=100%25&q=1+1") << Pairs{{"p", "100%"}, {"q", "1+1"}};
    QTest::newRow("non-ASCII as UTF-8") << Adds{{"n", unicode, false}} << "n=" + unicode
                                        << ("n=" + unicode).toUtf8() << Pairs{{"n", unicode}};
    QTest::newRow("JSON text") << Adds{{"cm", "getlist", false}, {"dt", json, false}}
                               << "cm=getlist&dt=" + json
                               << QByteArray("cm=getlist&dt=%7B%22a%22:%22b c%22%7D")
                               << Pairs{{"cm", "getlist"}, {"dt", json}};
    // An object renders as a null text, which QUrlQuery writes as a bare key.
    QTest::newRow("number, boolean, object")
        << Adds{{"n", 42, false}, {"b", true, false}, {"o", QJsonObject{{"a", 1}}, false}}
        << "n=42&b=true&o=" << QByteArray("n=42&b=true&o")
        << Pairs{{"n", "42"}, {"b", "true"}, {"o", ""}};
}

void TestHttpParams::rendering()
{
    QFETCH(Adds, adds);
    QFETCH(QString, text);
    QFETCH(QByteArray, body);
    QFETCH(Pairs, decoded);
    HttpParams params = build(adds);
    QCOMPARE(params.toString(), text);
    QCOMPARE(params.post(), body);
    QCOMPARE(params.get().query(QUrl::PrettyDecoded).toUtf8(), body);
    QCOMPARE(params.get().queryItems(QUrl::FullyDecoded), decoded);
}

void TestHttpParams::sort_data()
{
    QTest::addColumn<Adds>("adds");
    QTest::addColumn<QString>("sorted");

    QTest::newRow("stable, upper case first")
        << Adds{{"b", 1, false}, {"a", 2, false}, {"B", 3, false}, {"a", 4, false}}
        << "B=3&a=2&a=4&b=1";
    QTest::newRow("prefix first") << Adds{{"ab", 1, false}, {"a", 2, false}, {"", 3, false}}
                                  << "=3&a=2&ab=1";
    QTest::newRow("code units") << Adds{{"amount", 1, false}, {"Zone", 2, false}}
                                << "Zone=2&amount=1";
    QTest::newRow("empty") << Adds{} << "";
}

void TestHttpParams::sort()
{
    QFETCH(Adds, adds);
    QFETCH(QString, sorted);
    HttpParams params = build(adds);
    params.sort();
    QCOMPARE(params.toString(), sorted);
}

void TestHttpParams::copiesAreIndependentAndParentless()
{
    QObject parent;
    HttpParams original(QStringLiteral("cm"), QStringLiteral("getlist"));
    original.setParent(&parent);

    HttpParams copy(original);
    QCOMPARE(copy.parent(), nullptr);
    copy.add(QStringLiteral("dt"), 1, false);
    QCOMPARE(original.toString(), QStringLiteral("cm=getlist"));

    HttpParams assigned;
    HttpParams returned = (assigned = copy);
    returned.add(QStringLiteral("x"), 2, false);
    QCOMPARE(assigned.toString(), QStringLiteral("cm=getlist&dt=1"));
    QCOMPARE(returned.toString(), QStringLiteral("cm=getlist&dt=1&x=2"));
    QCOMPARE(assigned.parent(), nullptr);

    assigned.clear();
    QCOMPARE(assigned.toString(), QString());
    QCOMPARE(copy.toString(), QStringLiteral("cm=getlist&dt=1"));
    original.setParent(nullptr);
}

void TestHttpParams::myQueryKeepsOrderAndDuplicates()
{
    QMyQuery query;
    query.addQueryItem(QStringLiteral("b"), QStringLiteral("1"));
    query.addQueryItem(QStringLiteral("a"), QStringLiteral("x&y"));
    query.addQueryItem(QStringLiteral("b"), QString());
    const Pairs expected{{"b", "1"}, {"a", "x&y"}, {"b", ""}};
    QMyQuery copy(query);
    query.addQueryItem(QStringLiteral("c"), QStringLiteral("3"));
    QCOMPARE(copy.get(), expected);
    QCOMPARE(copy.parent(), nullptr);
    QCOMPARE(query.get().size(), 4);
}

QTEST_GUILESS_MAIN(TestHttpParams)
#include "tst_httpparams.moc"
