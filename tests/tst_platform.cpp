// The data model a run exercised: the library ships for 32-bit ARM Linux (ILP32) and is
// developed on x86-64 (LP64). Either way it relies on the sizes checked here.
#include <QSysInfo>
#include <QtTest>

#include <ctime>

class TestPlatform : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void reportsTheDataModel()
    {
        qInfo("platform: %s (%s), sizeof(long) = %d, sizeof(void*) = %d, sizeof(time_t) = %d",
              qPrintable(QSysInfo::buildCpuArchitecture()), qPrintable(QSysInfo::buildAbi()),
              int(sizeof(long)), int(sizeof(void*)), int(sizeof(std::time_t)));
        QCOMPARE(sizeof(long), sizeof(void*));
        QCOMPARE(sizeof(int), size_t(4));
        QCOMPARE(sizeof(long long), size_t(8));
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
