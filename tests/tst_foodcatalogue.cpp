// The menu reply turned into a download list, and rewritten from the download results.
#include "cdownloadfileman.h"
#include "libcmn.h"

#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

Q_DECLARE_METATYPE(QList<tagDownFileInfo>)

namespace {

// One line per record; the picture folder is written "<images>".
QString describe(const QList<tagDownFileInfo>& files, const QString& images)
{
    QStringList lines;
    for (const tagDownFileInfo& f : files)
        lines << QStringLiteral("%1 | %2 | %3 | %4 | cache=%5 ready=%6")
                     .arg(f.url, QString(f.localPath).replace(images, QLatin1String("<images>")))
                     .arg(f.stamp)
                     .arg(f.id)
                     .arg(f.useCache)
                     .arg(f.fileReady);
    return lines.join(QLatin1Char('\n'));
}

tagDownFileInfo record(const QString& localPath, bool ready, bool useCache)
{
    tagDownFileInfo info;
    info.localPath = localPath;
    info.fileReady = ready;
    info.useCache = useCache;
    return info;
}

} // namespace

class TestFoodCatalogue : public QObject
{
    Q_OBJECT
    QTemporaryDir dataHome;
    QString images; // <data location>/images

private Q_SLOTS:
    void initTestCase();
    void parseDataFoods_data();
    void parseDataFoods();
    void parseReplacesEarlierList();
    void updateDataFoods_data();
    void updateDataFoods();
};

void TestFoodCatalogue::initTestCase()
{
    QVERIFY(dataHome.isValid());
    qputenv("XDG_DATA_HOME", dataHome.path().toUtf8());
    const QString data = QStandardPaths::standardLocations(QStandardPaths::DataLocation).value(0);
    QVERIFY2(data.startsWith(dataHome.path() + QLatin1Char('/')), qPrintable(data));
    images = data + QLatin1String("/images");
}

void TestFoodCatalogue::parseDataFoods_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<qulonglong>("lastUpdate");
    QTest::addColumn<QString>("records");

    QTest::newRow("host with port")
        << R"({"dt":{"img_host":"https://cdn.example:8443","last_update":1700000000.9,
              "items":[{"item_id":12,"img_path":"/p/12.png","img_crc":"1700000000123"}]}})"
        << 1700000000ULL
        << "https://cdn.example:8443/p/12.png | <images>/12.png | 1700000000123 | 12 | "
           "cache=1 ready=0";
    QTest::newRow("last dot of the url, in order")
        << R"({"dt":{"img_host":"http://h","items":[
              {"item_id":3,"img_path":"/a.b/c.d.jpeg","img_crc":"9"},
              {"item_id":1,"img_path":"/x.gif","img_crc":"8"}]}})"
        << 0ULL
        << "http://h/a.b/c.d.jpeg | <images>/3.jpeg | 9 | 3 | cache=1 ready=0\n"
           "http://h/x.gif | <images>/1.gif | 8 | 1 | cache=1 ready=0";
    QTest::newRow("dot only in the host")
        << R"({"dt":{"img_host":"https://cdn.example","items":[{"item_id":7,"img_path":"/p/7"}]}})"
        << 0ULL << "https://cdn.example/p/7 | <images>/7.example/p/7 | 0 | 7 | cache=1 ready=0";
    QTest::newRow("no dot at all")
        << R"({"dt":{"img_host":"http://localhost:80","items":[{"item_id":7,"img_path":"/p/7"}]}})"
        << 0ULL << "http://localhost:80/p/7 | <images>/7 | 0 | 7 | cache=1 ready=0";
    QTest::newRow("stamps that are not decimal text")
        << R"({"dt":{"img_host":"h","items":[{"item_id":1,"img_path":".a","img_crc":"12x"},
              {"item_id":2,"img_path":".b","img_crc":1700000000123},
              {"item_id":3,"img_path":".c","img_crc":"0x10"},
              {"item_id":4,"img_path":".d","img_crc":"-5"}]}})"
        << 0ULL
        << "h.a | <images>/1.a | 0 | 1 | cache=1 ready=0\n"
           "h.b | <images>/2.b | 0 | 2 | cache=1 ready=0\n"
           "h.c | <images>/3.c | 0 | 3 | cache=1 ready=0\n"
           "h.d | <images>/4.d | 0 | 4 | cache=1 ready=0";
    QTest::newRow("largest stamp")
        << R"({"dt":{"items":[{"img_crc":"18446744073709551615"}]}})" << 0ULL
        << " | <images>/0 | 18446744073709551615 | 0 | cache=1 ready=0";
    QTest::newRow("missing keys") << R"({"dt":{"last_update":"soon","items":[{},7]}})" << 0ULL
                                  << " | <images>/0 | 0 | 0 | cache=1 ready=0\n"
                                     " | <images>/0 | 0 | 0 | cache=1 ready=0";
    QTest::newRow("negative last_update")
        << R"({"dt":{"last_update":-3,"items":[]}})" << 0ULL << "";
    QTest::newRow("last_update beyond 64 bits")
        << R"({"dt":{"last_update":1e30}})" << 18446744073709551615ULL << "";
    QTest::newRow("unreadable reply") << "<html>busy</html>" << 0ULL << "";
}

void TestFoodCatalogue::parseDataFoods()
{
    QFETCH(QString, reply);
    QFETCH(qulonglong, lastUpdate);
    QFETCH(QString, records);

    CDownloadFileMan manager(false, nullptr);
    unsigned long long stamp = 42;
    Libcmn::parseDataFoods(reply, manager, stamp);
    QCOMPARE(stamp, lastUpdate);
    QCOMPARE(describe(manager.GetListFile(), images), records);
}

void TestFoodCatalogue::parseReplacesEarlierList()
{
    CDownloadFileMan manager(false, nullptr);
    unsigned long long stamp = 0;
    Libcmn::parseDataFoods(R"({"dt":{"items":[{"item_id":1},{"item_id":2}]}})", manager, stamp);
    Libcmn::parseDataFoods(R"({"dt":{"items":[{"item_id":3}]}})", manager, stamp);
    QCOMPARE(describe(manager.GetListFile(), images),
             QStringLiteral(" | <images>/3 | 0 | 3 | cache=1 ready=0"));
}

void TestFoodCatalogue::updateDataFoods_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QList<tagDownFileInfo>>("files");
    QTest::addColumn<QString>("expected"); // "<images>" stands for the picture folder

    const QString two = R"({"err":0,"msg":"ok","dt":{"img_host":"https://h","last_update":5,
        "items":[{"item_id":1,"img_path":"/1.png","name":"Pho","price":3,"img_cache":"x"},
                 {"item_id":2,"img_path":"/2.png"}]}})";
    QTest::newRow("ready and failed")
        << two
        << QList<tagDownFileInfo>{record(images + "/1.png", true, true),
                                  record(images + "/2.png", false, false)}
        << R"({"dt":{"img_host":"https://h","items":[{"img_cache":true,)"
           R"("img_path":"file:///<images>/1.png","item_id":1,"name":"Pho","price":3},)"
           R"({"img_cache":false,"img_path":"qrc:/icons/images/defaultfood.png","item_id":2}],)"
           R"("last_update":5},"err":0,"msg":"ok"})";
    QTest::newRow("fewer records than items")
        << two << QList<tagDownFileInfo>{record(images + "/1.png", false, true)}
        << R"({"dt":{"img_host":"https://h","items":[{"img_cache":true,)"
           R"("img_path":"qrc:/icons/images/defaultfood.png","item_id":1,"name":"Pho","price":3},)"
           R"({"img_path":"/2.png","item_id":2}],"last_update":5},"err":0,"msg":"ok"})";
    QTest::newRow("more records than items")
        << R"({"dt":{"items":[{"item_id":1}]}})"
        << QList<tagDownFileInfo>{record(images + "/1.png", true, false),
                                  record(images + "/2.png", true, true)}
        << R"({"dt":{"items":[{"img_cache":false,"img_path":"file:///<images>/1.png","item_id":1}]}})";
    QTest::newRow("empty items") << R"( { "err" : 0, "dt" : { "x" : [ 1 ], "items" : [ ] } } )"
                                 << QList<tagDownFileInfo>{}
                                 << R"({"dt":{"items":[],"x":[1]},"err":0})";
    QTest::newRow("unreadable reply")
        << "<html>busy</html>" << QList<tagDownFileInfo>{record(images + "/1.png", true, true)}
        << R"({"dt":{"items":[]}})";
}

void TestFoodCatalogue::updateDataFoods()
{
    QFETCH(QString, reply);
    QFETCH(QList<tagDownFileInfo>, files);
    QFETCH(QString, expected);

    CDownloadFileMan manager(false, nullptr);
    for (const tagDownFileInfo& file : files)
        manager.AddDownLoadFile(file);
    QCOMPARE(Libcmn::updateDataFoods(reply, manager),
             expected.replace(QLatin1String("<images>"), images));
    QVERIFY(images.startsWith(QLatin1Char('/'))); // so the addresses read "file:////..."
}

QTEST_GUILESS_MAIN(TestFoodCatalogue)
#include "tst_foodcatalogue.moc"
