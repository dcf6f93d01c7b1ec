// HttpParams and QMyQuery: order, duplicates, the clear flag, sorting and the three renderings.
#include "httpparams.h"
#include "qmyquery.h"

#include <QJsonObject>
#include <QtTest>

using Pairs = QList<QPair<QString, QString>>;
struct Add
{
    QString key;
    QVariant value;
    bool clear = false;
};
using Adds = QList<Add>;
Q_DECLARE_METATYPE(Adds)

static HttpParams build(const Adds& adds)
{
    HttpParams params;
    for (const Add& add : adds)
        params.add(add.key, add.value, add.clear);
    return params;
}

class TestHttpParams : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // toString() is for reading; post() and the GET query are QUrlQuery's encoding of the pairs.
    void rendering_data()
    {
        QTest::addColumn<Adds>("adds");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QByteArray>("wire");
        const QString uni = QStringLiteral("caf\u00e9 \u4e2d");
        QTest::newRow("order, duplicates, raw space")
            << Adds{{"k", 1}, {"b", "x y"}, {"k", "2"}} << "k=1&b=x y&k=2"
            << QByteArray("k=1&b=x y&k=2");
        QTest::newRow("clear empties first")
            << Adds{{"a", 1}, {"b", 2}, {"k", "v", true}} << "k=v" << QByteArray("k=v");
        QTest::newRow("empty key and value")
            << Adds{{"", "v"}, {"e", ""}} << "=v&e=" << QByteArray("=v&e=");
        QTest::newRow("delimiters, percent and plus escaped on the wire only")
            << Adds{{"k=&", "a&b=c"}, {"p", "100%+1"}} << "k=&=a&b=c&p=100%+1"
            << QByteArray("k%3D%26=a%26b%3Dc&p=100%25+1");
        QTest::newRow("non-ASCII as UTF-8")
            << Adds{{"n", uni}} << "n=" + uni << ("n=" + uni).toUtf8();
        // An object renders as a null text, which QUrlQuery writes as a bare key.
        QTest::newRow("number, boolean, object")
            << Adds{{"n", 42}, {"b", true}, {"o", QJsonObject{{"a", 1}}}}
            << "n=42&b=true&o=" << QByteArray("n=42&b=true&o");
    }
    void rendering()
    {
        QFETCH(Adds, adds);
        QFETCH(QByteArray, wire);
        HttpParams params = build(adds);
        QTEST(params.toString(), "text");
        QCOMPARE(params.post(), wire);
        QCOMPARE(params.get().query(QUrl::PrettyDecoded).toUtf8(), wire);
    }
    void sortIsStableByCodeUnits()
    {
        HttpParams params = build({{"b", 1}, {"ab", 2}, {"B", 3}, {"a", 4}, {"", 5}, {"a", 6}});
        params.sort();
        QCOMPARE(params.toString(), QStringLiteral("=5&B=3&a=4&a=6&ab=2&b=1"));
    }
    // Both are QObjects copied by value: a copy is a new object without parent, sharing nothing.
    void copiesAreIndependentAndParentless()
    {
        QObject parent;
        HttpParams original("cm", "getlist");
        original.setParent(&parent);
        HttpParams copy(original), assigned;
        copy.add("dt", 1, false);
        HttpParams returned = (assigned = copy);
        returned.add("x", 2, false);
        assigned.clear();
        QCOMPARE(QStringList({original.toString(), copy.toString(), assigned.toString(),
                              returned.toString()}),
                 QStringList({"cm=getlist", "cm=getlist&dt=1", "", "cm=getlist&dt=1&x=2"}));
        QVERIFY(!copy.parent() && !assigned.parent());
        original.setParent(nullptr);

        QMyQuery query;
        query.addQueryItem("b", "1");
        query.addQueryItem("b", QString());
        QMyQuery queryCopy(query);
        query.addQueryItem("c", "3");
        QCOMPARE(queryCopy.get(), Pairs({{"b", "1"}, {"b", ""}}));
        QCOMPARE(query.get().size(), 3);
        QVERIFY(!queryCopy.parent());
    }
};

QTEST_GUILESS_MAIN(TestHttpParams)
#include "tst_httpparams.moc"
