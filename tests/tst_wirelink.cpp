// kelo-wire's link model on a clock of the test's own: when packets arrive for a rate and a
// delay, the drop-tail queue, seeded loss, the blackhole, the built-in profiles and the control
// commands that change them while the wire runs.
#include "wirelink.h"

#include <QtTest>

#include <cmath>

using kelowire::Direction;
using kelowire::DirectionSettings;
using kelowire::LinkSettings;
using kelowire::Nanos;
using kelowire::Wire;

Q_DECLARE_METATYPE(std::vector<int>)
Q_DECLARE_METATYPE(std::vector<qint64>)

namespace {

constexpr Nanos ms = 1000000;

std::vector<std::uint8_t> packet(int size, std::uint8_t tag = 0)
{
    return std::vector<std::uint8_t>(std::size_t(size), tag);
}

/// Runs the direction until it is empty and returns each delivered packet's tag with its time,
/// stepping the clock to every next delivery.
std::vector<std::pair<int, Nanos>> drain(Direction& d, bool blackhole = false)
{
    std::vector<std::pair<int, Nanos>> out;
    for (Nanos t = d.nextDelivery(); t >= 0; t = d.nextDelivery()) {
        std::vector<std::vector<std::uint8_t>> due;
        d.takeDue(t, blackhole, &due);
        for (const auto& p : due)
            out.push_back({p.empty() ? -1 : int(p.front()), t});
    }
    return out;
}

std::string statsLine(const std::string& answer, const char* direction)
{
    const std::size_t at = answer.find(std::string("\n") + direction + " ");
    return at == std::string::npos ? std::string()
                                   : answer.substr(at + 1, answer.find('\n', at + 1) - at - 1);
}

} // namespace

class TestWireLink : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void deliveryTimes_data();
    void deliveryTimes();
    void dropTailQueue_data();
    void dropTailQueue();
    void queueEmptiesAsPacketsLeave();
    void lossIsSeededAndNearItsRate_data();
    void lossIsSeededAndNearItsRate();
    void lostPacketsStillTakeTheirTurn();
    void blackholeDropsArrivalsAndPacketsUnderWay();
    void lowerDelayKeepsTheOrder();
    void profiles_data();
    void profiles();
    void assignments_data();
    void assignments();
    void commands_data();
    void commands();
    void statsCountEachDirection();
};

void TestWireLink::deliveryTimes_data()
{
    QTest::addColumn<double>("delayMs");
    QTest::addColumn<double>("rateKbit");
    QTest::addColumn<std::vector<int>>("sizes");       // bytes, one packet each
    QTest::addColumn<std::vector<qint64>>("arrivals"); // ns
    QTest::addColumn<std::vector<qint64>>("expected"); // delivery, ns

    // 1000 bytes at 8000 kbit/s take 1 ms on the wire.
    QTest::newRow("delay only") << 40.0 << 0.0 << std::vector<int>{1500, 60}
                                << std::vector<qint64>{0, 5 * ms}
                                << std::vector<qint64>{40 * ms, 45 * ms};
    QTest::newRow("serialisation then delay")
        << 10.0 << 8000.0 << std::vector<int>{1000} << std::vector<qint64>{0}
        << std::vector<qint64>{11 * ms};
    QTest::newRow("back to back: each waits for the previous departure")
        << 10.0 << 8000.0 << std::vector<int>{1000, 1000, 500} << std::vector<qint64>{0, 0, 0}
        << std::vector<qint64>{11 * ms, 12 * ms, 12 * ms + ms / 2};
    QTest::newRow("idle link: a late packet starts at its arrival")
        << 10.0 << 8000.0 << std::vector<int>{1000, 1000} << std::vector<qint64>{0, 50 * ms}
        << std::vector<qint64>{11 * ms, 61 * ms};
    QTest::newRow("4g uplink, full-size packet")
        << 75.0 << 750.0 << std::vector<int>{1500} << std::vector<qint64>{0}
        << std::vector<qint64>{75 * ms + 16 * ms};
    QTest::newRow("fractional delay (lan)")
        << 0.5 << 1000000.0 << std::vector<int>{1250} << std::vector<qint64>{0}
        << std::vector<qint64>{ms / 2 + 10000};
}

void TestWireLink::deliveryTimes()
{
    QFETCH(double, delayMs);
    QFETCH(double, rateKbit);
    QFETCH(std::vector<int>, sizes);
    QFETCH(std::vector<qint64>, arrivals);
    QFETCH(std::vector<qint64>, expected);
    Direction d(7);
    d.configure({delayMs, rateKbit, 0, 0, 0});
    for (std::size_t i = 0; i < sizes.size(); ++i)
        QVERIFY(d.offer(packet(sizes[i], std::uint8_t(i)), arrivals[i], false));
    const auto delivered = drain(d);
    QCOMPARE(delivered.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        QCOMPARE(delivered[i].first, int(i));
        QCOMPARE(qint64(delivered[i].second), expected[i]);
    }
    QCOMPARE(qint64(d.stats().packets), qint64(sizes.size()));
}

void TestWireLink::dropTailQueue_data()
{
    QTest::addColumn<qint64>("queueBytes");
    QTest::addColumn<qint64>("queuePackets");
    QTest::addColumn<int>("burst"); // packets of 1000 bytes at the same instant
    QTest::addColumn<int>("accepted");

    QTest::newRow("bytes: 5000 hold five") << qint64(5000) << qint64(0) << 8 << 5;
    QTest::newRow("bytes: 5999 still five") << qint64(5999) << qint64(0) << 8 << 5;
    QTest::newRow("packets: three") << qint64(0) << qint64(3) << 8 << 3;
    QTest::newRow("both: the tighter wins") << qint64(10000) << qint64(2) << 8 << 2;
    QTest::newRow("no limit") << qint64(0) << qint64(0) << 50 << 50;
}

void TestWireLink::dropTailQueue()
{
    QFETCH(qint64, queueBytes);
    QFETCH(qint64, queuePackets);
    QFETCH(int, burst);
    QFETCH(int, accepted);
    Direction d(1);
    d.configure({20, 800, 0, queueBytes, queuePackets}); // 1000 bytes: 10 ms each
    int taken = 0;
    for (int i = 0; i < burst; ++i)
        taken += d.offer(packet(1000, std::uint8_t(i)), 0, false) ? 1 : 0;
    QCOMPARE(taken, accepted);
    QCOMPARE(qint64(d.stats().queuePackets), qint64(burst - accepted));
    QCOMPARE(qint64(d.stats().droppedBytes), qint64(burst - accepted) * 1000);
    QCOMPARE(qint64(d.queuedPackets(0)), qint64(accepted));
    // Drop-tail: the first ones stay, in order.
    const auto delivered = drain(d);
    QCOMPARE(int(delivered.size()), accepted);
    for (int i = 0; i < accepted; ++i)
        QCOMPARE(delivered[std::size_t(i)].first, i);
}

void TestWireLink::queueEmptiesAsPacketsLeave()
{
    Direction d(1);
    d.configure({50, 800, 0, 3000, 0}); // 1000 bytes leave every 10 ms
    for (int i = 0; i < 3; ++i)
        QVERIFY(d.offer(packet(1000), 0, false));
    QVERIFY(!d.offer(packet(1000), 0, false));
    // At 10 ms the first has left (it is on its way, no longer queued): room for one more.
    QCOMPARE(qint64(d.queuedBytes(10 * ms)), qint64(2000));
    QVERIFY(d.offer(packet(1000), 10 * ms, false));
    QVERIFY(!d.offer(packet(1000), 10 * ms, false));
    QCOMPARE(qint64(d.queuedPackets(40 * ms)), qint64(0));
}

void TestWireLink::lossIsSeededAndNearItsRate_data()
{
    QTest::addColumn<double>("loss");
    QTest::addColumn<double>("low");  // share of 20,000 packets lost, at least
    QTest::addColumn<double>("high"); // and at most
    QTest::newRow("none") << 0.0 << 0.0 << 0.0;
    QTest::newRow("2 %") << 2.0 << 0.017 << 0.023;
    QTest::newRow("30 %") << 30.0 << 0.28 << 0.32;
    QTest::newRow("all") << 100.0 << 1.0 << 1.0;
}

void TestWireLink::lossIsSeededAndNearItsRate()
{
    QFETCH(double, loss);
    QFETCH(double, low);
    QFETCH(double, high);
    const auto pattern = [&](std::uint64_t seed) {
        Direction d(seed);
        d.configure({1, 0, loss, 0, 0});
        for (int i = 0; i < 20000; ++i)
            d.offer(packet(100, std::uint8_t(i)), Nanos(i) * ms, false);
        std::vector<std::vector<std::uint8_t>> due;
        d.takeDue(30000 * ms, false, &due);
        return std::make_pair(double(d.stats().lossPackets) / 20000.0,
                              qint64(d.stats().packets + d.stats().lossPackets));
    };
    const auto first = pattern(42);
    QVERIFY2(first.first >= low && first.first <= high, qPrintable(QString::number(first.first)));
    QCOMPARE(first.second, qint64(20000));
    // The same seed loses the same packets; another seed others (unless none or all are lost).
    const auto sequence = [&](std::uint64_t seed) {
        Direction d(seed);
        d.configure({1, 0, loss, 0, 0});
        for (int i = 0; i < 200; ++i)
            d.offer(packet(1, std::uint8_t(i)), Nanos(i), false);
        std::vector<std::vector<std::uint8_t>> due;
        d.takeDue(10 * ms, false, &due);
        QByteArray tags;
        for (const auto& p : due)
            tags.append(char(p.front()));
        return tags;
    };
    QCOMPARE(sequence(42), sequence(42));
    if (loss > 0 && loss < 100)
        QVERIFY(sequence(42) != sequence(43));
}

void TestWireLink::lostPacketsStillTakeTheirTurn()
{
    // A packet lost on the way has used the link: the next one waits for it.
    Direction d(5);
    d.configure({0, 8000, 100, 0, 0});
    QVERIFY(d.offer(packet(1000), 0, false));
    d.configure({0, 8000, 0, 0, 0});
    QVERIFY(d.offer(packet(1000, 1), 0, false));
    const auto delivered = drain(d);
    QCOMPARE(int(delivered.size()), 1);
    QCOMPARE(qint64(delivered[0].second), qint64(2 * ms));
    QCOMPARE(qint64(d.stats().lossPackets), qint64(1));
}

void TestWireLink::blackholeDropsArrivalsAndPacketsUnderWay()
{
    Wire wire;
    wire.configure({{40, 0, 0, 0, 0}, {40, 0, 0, 0, 0}});
    QVERIFY(wire.up().offer(packet(100, 1), 0, wire.blackholed()));
    QCOMPARE(wire.command("blackhole on", 0), std::string("ok blackhole on\n"));
    // Under way when the link went dark, and new arrivals: both gone, silently.
    QVERIFY(!wire.up().offer(packet(100, 2), 1 * ms, wire.blackholed()));
    QVERIFY(!wire.down().offer(packet(100, 3), 1 * ms, wire.blackholed()));
    QCOMPARE(int(drain(wire.up(), wire.blackholed()).size()), 0);
    QCOMPARE(qint64(wire.up().stats().blackholePackets), qint64(2));
    QCOMPARE(qint64(wire.down().stats().blackholePackets), qint64(1));
    QCOMPARE(wire.command("blackhole off", 2 * ms), std::string("ok blackhole off\n"));
    QVERIFY(wire.down().offer(packet(100, 4), 2 * ms, wire.blackholed()));
    const auto delivered = drain(wire.down(), wire.blackholed());
    QCOMPARE(int(delivered.size()), 1);
    QCOMPARE(delivered[0].first, 4);
}

void TestWireLink::lowerDelayKeepsTheOrder()
{
    Direction d(1);
    d.configure({100, 0, 0, 0, 0});
    QVERIFY(d.offer(packet(100, 1), 0, false));
    d.configure({10, 0, 0, 0, 0});
    QVERIFY(d.offer(packet(100, 2), 1 * ms, false));
    const auto delivered = drain(d);
    QCOMPARE(int(delivered.size()), 2);
    QCOMPARE(delivered[0].first, 1);
    QCOMPARE(delivered[1].first, 2);
    QCOMPARE(qint64(delivered[1].second), qint64(100 * ms)); // not before the first
}

void TestWireLink::profiles_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<double>("roundTripMs");
    QTest::addColumn<double>("downKbit");
    QTest::addColumn<double>("upKbit");
    QTest::addColumn<double>("loss");
    QTest::newRow("wifi") << "wifi" << 80.0 << 20000.0 << 20000.0 << 0.0;
    QTest::newRow("4g") << "4g" << 150.0 << 1600.0 << 750.0 << 0.0;
    QTest::newRow("lossy-wifi") << "lossy-wifi" << 80.0 << 20000.0 << 20000.0 << 2.0;
    QTest::newRow("lan") << "lan" << 1.0 << 1000000.0 << 1000000.0 << 0.0;
}

void TestWireLink::profiles()
{
    QFETCH(QString, name);
    QFETCH(double, roundTripMs);
    QFETCH(double, downKbit);
    QFETCH(double, upKbit);
    QFETCH(double, loss);
    LinkSettings s;
    QVERIFY(kelowire::profileSettings(name.toStdString(), &s));
    QCOMPARE(s.up.delayMs + s.down.delayMs, roundTripMs);
    QCOMPARE(s.down.rateKbit, downKbit);
    QCOMPARE(s.up.rateKbit, upKbit);
    QCOMPARE(s.up.lossPercent, loss);
    QCOMPARE(s.down.lossPercent, loss);
    // Queues: 1 to 2 bandwidth-delay products, or 16 full-size packets (24,000 bytes) where
    // two products hold fewer.
    for (const DirectionSettings* d : {&s.up, &s.down}) {
        const double bdp = d->rateKbit * 1000.0 / 8.0 * roundTripMs / 1000.0;
        const QByteArray what =
            QStringLiteral("%1 bytes, BDP %2").arg(d->queueBytes).arg(bdp).toUtf8();
        QCOMPARE(d->queuePackets, std::int64_t(0));
        if (2 * bdp < 24000)
            QVERIFY2(d->queueBytes == 24000, what.constData());
        else
            QVERIFY2(double(d->queueBytes) >= bdp && double(d->queueBytes) <= 2 * bdp,
                     what.constData());
    }
    QVERIFY(!kelowire::profileSettings("5g", &s));
}

void TestWireLink::assignments_data()
{
    QTest::addColumn<QString>("assignment");
    QTest::addColumn<QString>("settings"); // "show" lines up and down after it; empty: refused
    QTest::addColumn<QString>("error");
    const QString base = "up delay=10 rate=100 loss=0 queue=5000\n"
                         "down delay=10 rate=100 loss=0 queue=5000\n";
    QTest::newRow("both directions") << "delay=75"
                                     << "up delay=75 rate=100 loss=0 queue=5000\n"
                                        "down delay=75 rate=100 loss=0 queue=5000\n"
                                     << "";
    QTest::newRow("down only, fractional") << "down.rate=1600.5"
                                           << "up delay=10 rate=100 loss=0 queue=5000\n"
                                              "down delay=10 rate=1600.5 loss=0 queue=5000\n"
                                           << "";
    QTest::newRow("up queue in packets") << "up.queue=40p"
                                         << "up delay=10 rate=100 loss=0 queue=40p\n"
                                            "down delay=10 rate=100 loss=0 queue=5000\n"
                                         << "";
    QTest::newRow("loss") << "loss=2"
                          << "up delay=10 rate=100 loss=2 queue=5000\n"
                             "down delay=10 rate=100 loss=2 queue=5000\n"
                          << "";
    QTest::newRow("unknown key") << "jitter=5"
                                 << ""
                                 << "unknown key \"jitter\" (delay, rate, loss, queue, each "
                                    "optionally up. or down.)";
    QTest::newRow("unknown direction") << "sideways.delay=5"
                                       << ""
                                       << "unknown key \"sideways.delay\" (delay, rate, loss, "
                                          "queue, each optionally up. or down.)";
    QTest::newRow("negative") << "delay=-1"
                              << ""
                              << "bad value for delay: \"-1\"";
    QTest::newRow("not a number") << "rate=fast"
                                  << ""
                                  << "bad value for rate: \"fast\"";
    QTest::newRow("loss above 100") << "up.loss=101"
                                    << ""
                                    << "bad value for up.loss: \"101\"";
    QTest::newRow("queue in halves") << "queue=10.5"
                                     << ""
                                     << "bad value for queue: \"10.5\"";
    QTest::newRow("trailing text") << "delay=5ms"
                                   << ""
                                   << "bad value for delay: \"5ms\"";
    QTest::newRow("no value") << "delay="
                              << ""
                              << "bad value for delay: \"\"";
    QTest::newRow("no =") << "delay"
                          << ""
                          << "expected KEY=VALUE, got \"delay\"";
}

void TestWireLink::assignments()
{
    QFETCH(QString, assignment);
    QFETCH(QString, settings);
    QFETCH(QString, error);
    Wire wire;
    QCOMPARE(wire.command("set delay=10 rate=100 queue=5000", 0), std::string("ok\n"));
    const std::string before = wire.command("show", 0);
    const std::string answer = wire.command("set " + assignment.toStdString(), 0);
    if (settings.isEmpty()) {
        QCOMPARE(QString::fromStdString(answer), "error: " + error + '\n');
        QCOMPARE(wire.command("show", 0), before); // nothing changed
    } else {
        QCOMPARE(QString::fromStdString(answer), QStringLiteral("ok\n"));
        QCOMPARE(QString::fromStdString(wire.command("show", 0)),
                 "ok\nprofile custom\n" + settings + "blackhole off\n");
    }
}

void TestWireLink::commands_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("answer");
    const QString unknown = " (blackhole on|off, profile NAME, set KEY=VALUE..., show, stats)\n";
    QTest::newRow("profile 4g") << "profile 4g"
                                << "ok profile 4g\n";
    QTest::newRow("unknown profile") << "profile 5g"
                                     << "error: unknown profile \"5g\" (wifi 4g lossy-wifi lan)\n";
    QTest::newRow("blackhole needs on or off")
        << "blackhole maybe"
        << "error: unknown command \"blackhole maybe\"" + unknown;
    QTest::newRow("set needs an assignment") << "set"
                                             << "error: unknown command \"set\"" + unknown;
    QTest::newRow("empty") << ""
                           << "error: empty command\n";
    QTest::newRow("words apart by blanks") << "  profile   lan  "
                                           << "ok profile lan\n";
    QTest::newRow("unknown") << "reboot"
                             << "error: unknown command \"reboot\"" + unknown;
}

void TestWireLink::commands()
{
    QFETCH(QString, line);
    QFETCH(QString, answer);
    Wire wire;
    QCOMPARE(QString::fromStdString(wire.command(line.toStdString(), 0)), answer);
}

void TestWireLink::statsCountEachDirection()
{
    Wire wire;
    wire.command("profile 4g", 0);
    wire.command("set up.queue=2p", 0);
    // Up: 750 kbit/s, 1500 bytes take 16 ms; a burst of 4 keeps 2.
    for (int i = 0; i < 4; ++i)
        wire.up().offer(packet(1500), 0, wire.blackholed());
    wire.down().offer(packet(500), 0, wire.blackholed());
    QCOMPARE(statsLine(wire.command("stats", 0), "up"),
             std::string("up packets=0 bytes=0 lost=0 queue_drops=2 blackhole_drops=0 "
                         "dropped_bytes=3000 queued_packets=2 queued_bytes=3000"));
    drain(wire.up());
    drain(wire.down());
    const std::string stats = wire.command("stats", 200 * ms);
    QCOMPARE(statsLine(stats, "up"),
             std::string("up packets=2 bytes=3000 lost=0 queue_drops=2 blackhole_drops=0 "
                         "dropped_bytes=3000 queued_packets=0 queued_bytes=0"));
    QCOMPARE(statsLine(stats, "down"),
             std::string("down packets=1 bytes=500 lost=0 queue_drops=0 blackhole_drops=0 "
                         "dropped_bytes=0 queued_packets=0 queued_bytes=0"));
}

QTEST_GUILESS_MAIN(TestWireLink)
#include "tst_wirelink.moc"
