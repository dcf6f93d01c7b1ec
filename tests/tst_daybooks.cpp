// The shop day's rules (bench/daybooks.*): its seeded plan of link events, which notices the
// books hold the SDK to, and how memory and descriptors are compared.
#include "daybooks.h"

#include <QtTest>

using namespace kelobench;

Q_DECLARE_METATYPE(QList<kelobench::LinkEvent>)
Q_DECLARE_METATYPE(QList<kelobench::ProcessSample>)

class TestDayBooks : public QObject
{
    Q_OBJECT

private slots:
    void planStaysInItsBounds_data();
    void planStaysInItsBounds();
    void sameSeedSamePlan();
    void noticeOwed_data();
    void noticeOwed();
    void growth_data();
    void growth();
};

void TestDayBooks::planStaysInItsBounds_data()
{
    QTest::addColumn<double>("warmUp");
    QTest::addColumn<double>("dayEnd");
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("atLeast");
    // The CI day (3 minutes) and the long day (30 minutes: at least 100 link events).
    for (quint32 seed = 1; seed <= 12; ++seed) {
        QTest::addRow("3 min, seed %u", seed) << 27.0 << 180.0 << seed << 4;
        QTest::addRow("30 min, seed %u", seed) << 60.0 << 1800.0 << seed << 100;
    }
}

/// Events one at a time after the warm-up and within the day; each kind within its range;
/// every kind shows up in a long day.
void TestDayBooks::planStaysInItsBounds()
{
    QFETCH(double, warmUp);
    QFETCH(double, dayEnd);
    QFETCH(quint32, seed);
    QFETCH(int, atLeast);
    const QList<LinkEvent> plan = planLinkEvents(warmUp, dayEnd, seed);
    QVERIFY2(plan.size() >= atLeast, qPrintable(QString::number(plan.size())));
    double previousEnd = warmUp;
    QSet<int> kinds;
    for (const LinkEvent& e : plan) {
        kinds.insert(static_cast<int>(e.type));
        QVERIFY(e.start >= previousEnd + 1 - 1e-9);
        QVERIFY(e.start <= previousEnd + 3 + 1e-9);
        QVERIFY(e.end <= dayEnd);
        QVERIFY(e.end > e.start);
        const double length = e.end - e.start;
        switch (e.type) {
        case LinkEventType::Blackhole:
            QVERIFY2(length >= 2 && length <= 60, qPrintable(QString::number(length)));
            break;
        case LinkEventType::Loss:
            QVERIFY(e.param >= 2 && e.param <= 5);
            QVERIFY(length <= 15);
            break;
        case LinkEventType::Profile:
            QVERIFY(length <= 25);
            break;
        case LinkEventType::Restart:
            QVERIFY(e.param >= 0 && e.param <= 5);
            break;
        }
        QCOMPARE(e.actualEnd, -1.0);
        previousEnd = e.end;
    }
    if (dayEnd >= 1800)
        QCOMPARE(kinds.size(), 4);
}

void TestDayBooks::sameSeedSamePlan()
{
    const QList<LinkEvent> a = planLinkEvents(60, 1800, 7), b = planLinkEvents(60, 1800, 7),
                           c = planLinkEvents(60, 1800, 8);
    QCOMPARE(a.size(), b.size());
    for (int i = 0; i < a.size(); ++i) {
        QCOMPARE(a[i].type, b[i].type);
        QCOMPARE(a[i].start, b[i].start);
        QCOMPARE(a[i].end, b[i].end);
        QCOMPARE(a[i].param, b[i].param);
    }
    QVERIFY(c.size() != a.size() || c.first().start != a.first().start);
}

void TestDayBooks::noticeOwed_data()
{
    QTest::addColumn<QList<LinkEvent>>("events");
    QTest::addColumn<double>("sent");
    QTest::addColumn<bool>("excused");
    auto one = [](LinkEventType type, double start, double end, double actualEnd = -1) {
        return QList<LinkEvent>{{type, start, end, 0, actualEnd}};
    };
    QTest::newRow("no event") << QList<LinkEvent>() << 50.0 << false;
    QTest::newRow("blackhole over 13 s before")
        << one(LinkEventType::Blackhole, 20, 37) << 50.0 << false;
    QTest::newRow("blackhole over 11 s before")
        << one(LinkEventType::Blackhole, 20, 39) << 50.0 << true;
    QTest::newRow("blackhole during") << one(LinkEventType::Blackhole, 45, 55) << 50.0 << true;
    QTest::newRow("blackhole 9 s after") << one(LinkEventType::Blackhole, 59, 70) << 50.0 << true;
    QTest::newRow("blackhole 11 s after") << one(LinkEventType::Blackhole, 61, 70) << 50.0 << false;
    QTest::newRow("restart, planned end long over, actual end 5 s before")
        << one(LinkEventType::Restart, 30, 31, 45) << 50.0 << true;
    QTest::newRow("restart over 20 s before")
        << one(LinkEventType::Restart, 28, 30, 30) << 50.0 << false;
    QTest::newRow("loss is no outage") << one(LinkEventType::Loss, 45, 55) << 50.0 << false;
    QTest::newRow("4g is no outage") << one(LinkEventType::Profile, 45, 55) << 50.0 << false;
}

/// A notice is excused only by an outage from 12 s before it was sent to 10 s after.
void TestDayBooks::noticeOwed()
{
    QFETCH(QList<LinkEvent>, events);
    QFETCH(double, sent);
    QFETCH(bool, excused);
    QCOMPARE(outageAround(events, sent), excused);
}

void TestDayBooks::growth_data()
{
    QTest::addColumn<QList<ProcessSample>>("samples");
    QTest::addColumn<bool>("measured");
    QTest::addColumn<double>("rssMb");
    QTest::addColumn<int>("fds");
    // Base window [10, 15); the last five samples are the day's end.
    auto day = [](const std::function<ProcessSample(int)>& at) {
        QList<ProcessSample> l;
        for (int t = 0; t < 60; ++t)
            l.append(at(t));
        return l;
    };
    QTest::newRow("flat") << day([](int t) {
        return ProcessSample{double(t), 40, 12};
    }) << true << 0.0 << 0;
    QTest::newRow("one descriptor per 10 s") << day([](int t) {
        return ProcessSample{double(t), 40, 12 + t / 10};
    }) << true << 0.0 << 4;
    QTest::newRow("a connection open for a moment at the end") << day([](int t) {
        return ProcessSample{double(t), 40, t == 57 ? 14 : 12};
    }) << true << 0.0 << 0;
    QTest::newRow("fewer descriptors at the end") << day([](int t) {
        return ProcessSample{double(t), 40, t > 50 ? 10 : 12};
    }) << true << 0.0 << -2;
    QTest::newRow("6 MB more, one spike in the base window") << day([](int t) {
        return ProcessSample{double(t), t == 12 ? 90.0 : t > 30 ? 46.0 : 40.0, 12};
    }) << true << 6.0 << 0;
    QTest::newRow("no sample in the base window")
        << QList<ProcessSample>{{1, 40, 12}, {2, 41, 12}, {40, 50, 20}} << false << 0.0 << 0;
}

/// Medians for memory, minima for descriptors, base window against the last five samples.
void TestDayBooks::growth()
{
    QFETCH(QList<ProcessSample>, samples);
    QFETCH(bool, measured);
    QFETCH(double, rssMb);
    QFETCH(int, fds);
    const Growth g = growthSince(samples, 10, 15);
    QCOMPARE(g.measured, measured);
    QCOMPARE(g.rssMb, rssMb);
    QCOMPARE(g.fds, fds);
}

QTEST_GUILESS_MAIN(TestDayBooks)
#include "tst_daybooks.moc"
