// The menu reply turned into a download list, and rewritten from the download results.
#include "cdownloadfileman.h"
#include "libcmn.h"
#include "tempdatalocation.h"

#include <QtTest>

namespace {

// "<url> <local path> <stamp> #<id>" per record, the picture folder written "<images>"; a
// record not as created (use cache, not ready) is marked " changed".
QString describe(const QList<tagDownFileInfo>& files, const QString& images)
{
    QStringList lines;
    for (const tagDownFileInfo& f : files)
        lines << QStringLiteral("%1 %2 %3 #%4%5")
                     .arg(f.url, QString(f.localPath).replace(images, "<images>"))
                     .arg(f.stamp)
                     .arg(f.id)
                     .arg(f.useCache && !f.fileReady ? "" : " changed");
    return lines.join('\n');
}

} // namespace

class TestFoodCatalogue : public QObject
{
    Q_OBJECT
    TempDataLocation data;

private Q_SLOTS:
    void initTestCase() { QVERIFY(data.isValid()); }
    void parseDataFoods_data();
    void parseDataFoods()
    {
        QFETCH(QString, reply);
        CDownloadFileMan manager(false, nullptr);
        unsigned long long stamp = 42;
        // A list left from an earlier reply is replaced.
        Libcmn::parseDataFoods(R"({"dt":{"items":[{"item_id":1},{"item_id":2}]}})", manager, stamp);
        Libcmn::parseDataFoods(reply, manager, stamp);
        QTEST(qulonglong(stamp), "lastUpdate");
        QTEST(describe(manager.GetListFile(), data.images()), "records");
    }
    void updateDataFoods_data();
    void updateDataFoods()
    {
        QFETCH(QString, reply);
        QFETCH(QString, records);
        CDownloadFileMan manager(false, nullptr);
        const QStringList flags = records.split(' ', Qt::SkipEmptyParts);
        for (int i = 0; i < flags.size(); ++i) {
            tagDownFileInfo info;
            info.localPath = data.images() + QStringLiteral("/%1.png").arg(i + 1);
            info.fileReady = flags[i][0] == 'R';
            info.useCache = flags[i][1] == '+';
            manager.AddDownLoadFile(info);
        }
        QTEST(Libcmn::updateDataFoods(reply, manager).replace(data.images().mid(1), "<images>"),
              "expected");
    }
};

void TestFoodCatalogue::parseDataFoods_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<qulonglong>("lastUpdate");
    QTest::addColumn<QString>("records");
    const auto row = [](const char* name, const char* reply, qulonglong stamp, const char* list) {
        QTest::newRow(name) << QString(reply) << stamp << QString(list);
    };
    row("host with port, last dot of the url, in order",
        R"({"dt":{"img_host":"https://c.example:8443","last_update":1700000000.9,"items":[
           {"item_id":12,"img_path":"/p/12.png","img_crc":"1700000000123"},
           {"item_id":3,"img_path":"/a.b/c.d.jpeg","img_crc":"9"}]}})",
        1700000000,
        "https://c.example:8443/p/12.png <images>/12.png 1700000000123 #12\n"
        "https://c.example:8443/a.b/c.d.jpeg <images>/3.jpeg 9 #3");
    row("dot only in the host",
        R"({"dt":{"img_host":"https://c.example","items":[{"item_id":7,"img_path":"/p/7"}]}})", 0,
        "https://c.example/p/7 <images>/7.example/p/7 0 #7");
    row("stamps: decimal text only, up to 64 bits",
        R"({"dt":{"img_host":"h","items":[{"item_id":1,"img_path":".a","img_crc":"12x"},
           {"item_id":2,"img_path":".b","img_crc":1700000000123},
           {"item_id":3,"img_path":".c","img_crc":"0x10"},
           {"item_id":4,"img_path":".d","img_crc":"-5"},
           {"item_id":5,"img_path":".e","img_crc":"18446744073709551615"}]}})",
        0,
        "h.a <images>/1.a 0 #1\nh.b <images>/2.b 0 #2\nh.c <images>/3.c 0 #3\n"
        "h.d <images>/4.d 0 #4\nh.e <images>/5.e 18446744073709551615 #5");
    // Converting such doubles to an unsigned integer unchecked would be undefined.
    row("missing keys, negative last_update", R"({"dt":{"last_update":-3,"items":[{},7]}})", 0,
        " <images>/0 0 #0\n <images>/0 0 #0");
    row("last_update beyond 64 bits", R"({"dt":{"last_update":1e30}})", 18446744073709551615ULL,
        "");
    row("unreadable reply", "<html>busy</html>", 0, "");
}

void TestFoodCatalogue::updateDataFoods_data()
{
    QTest::addColumn<QString>("reply");
    QTest::addColumn<QString>(
        "records"); // per record "<i>.png": R(eady) or F(ailed), then use cache
    QTest::addColumn<QString>("expected"); // "<images>" stands for the picture folder
    const QString menu = R"({"err":0,"dt":{"img_host":"https://h","items":[)"
                         R"({"item_id":1,"img_path":"/1.png","price":3,"img_cache":"x"},)"
                         R"({"item_id":2,"img_path":"/2.png"}]}})";
    // "file:///" and an absolute path: four slashes in a row.
    QTest::newRow("ready and failed")
        << menu << "R+ F-"
        << R"({"dt":{"img_host":"https://h","items":[{"img_cache":true,"img_path":)"
           R"("file:////<images>/1.png","item_id":1,"price":3},{"img_cache":false,"img_path":)"
           R"("qrc:/icons/images/defaultfood.png","item_id":2}]},"err":0})";
    QTest::newRow("fewer records than items")
        << menu << "F+"
        << R"({"dt":{"img_host":"https://h","items":[{"img_cache":true,"img_path":)"
           R"("qrc:/icons/images/defaultfood.png","item_id":1,"price":3},)"
           R"({"img_path":"/2.png","item_id":2}]},"err":0})";
    QTest::newRow("more records than items")
        << R"({"dt":{"items":[{"item_id":1}]}})"
        << "R- R+"
        << R"({"dt":{"items":[{"img_cache":false,"img_path":"file:////<images>/1.png","item_id":1}]}})";
    QTest::newRow("empty items") << R"( { "err" : 0, "dt" : { "x" : [ 1 ], "items" : [ ] } } )"
                                 << ""
                                 << R"({"dt":{"items":[],"x":[1]},"err":0})";
    QTest::newRow("unreadable reply") << "<html>busy</html>"
                                      << "R+"
                                      << R"({"dt":{"items":[]}})";
}

QTEST_GUILESS_MAIN(TestFoodCatalogue)
#include "tst_foodcatalogue.moc"
