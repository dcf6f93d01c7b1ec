#include "benchsupport.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kelobench {

double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

double percentile(std::vector<double> v, double p)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t i = std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5));
    return v[i];
}

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    const auto start = Clock::now();
    QTimer wake; // wakes the loop now and then so that the timeout is seen
    wake.start(50);
    while (!done()) {
        if (msSince(start) > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

Row row(const QString& figure, const QString& unit, double sdk, double baseline,
        const QString& goal, bool ratioGoal, double limit)
{
    Row r;
    r.figure = figure;
    r.unit = unit;
    r.sdk = sdk;
    r.baseline = baseline;
    r.goal = goal;
    r.ratioGoal = ratioGoal;
    r.limit = limit;
    return r;
}

namespace {

QString number(double v)
{
    if (v < 0)
        return QStringLiteral("-");
    if (v >= 1000)
        return QString::number(v, 'f', 0);
    return QString::number(v, 'g', 4);
}

} // namespace

void printTable(const QList<Row>& rows)
{
    const char* fmt = "%-44s %12s %12s %7s  %-18s %s\n";
    std::printf(fmt, "figure", "SDK", "baseline", "ratio", "goal", "verdict");
    std::printf("%s\n", QString(110, QLatin1Char('-')).toLatin1().constData());
    for (const Row& r : rows) {
        const QString name = r.figure + QStringLiteral(" [") + r.unit + QStringLiteral("]");
        const double ratio = r.ratio();
        std::printf(
            fmt, qPrintable(name), qPrintable(number(r.sdk)), qPrintable(number(r.baseline)),
            ratio < 0 ? "-" : qPrintable(QString::number(ratio, 'f', 2)),
            qPrintable(r.goal.isEmpty() ? QStringLiteral("-") : r.goal), qPrintable(r.verdict()));
    }
    std::fflush(stdout);
}

QJsonObject machine()
{
    QString model;
    QFile cpuinfo(QStringLiteral("/proc/cpuinfo"));
    if (cpuinfo.open(QIODevice::ReadOnly))
        for (const QByteArray& line : cpuinfo.readAll().split('\n'))
            if (line.startsWith("model name")) {
                model = QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
                break;
            }
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    const QString load =
        loadavg.open(QIODevice::ReadOnly)
            ? QString::fromLatin1(loadavg.readAll()).section(QLatin1Char(' '), 0, 2)
            : QString();
    return {
        {"nproc", static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN))}, {"cpu", model}, {"load", load}};
}

void writeJson(const QList<Row>& rows, const QString& path)
{
    QJsonArray array;
    for (const Row& r : rows) {
        QJsonObject o{
            {"figure", r.figure}, {"unit", r.unit}, {"goal", r.goal}, {"verdict", r.verdict()}};
        o.insert(QStringLiteral("sdk"), r.sdk < 0 ? QJsonValue() : QJsonValue(r.sdk));
        o.insert(QStringLiteral("baseline"),
                 r.baseline < 0 ? QJsonValue() : QJsonValue(r.baseline));
        o.insert(QStringLiteral("ratio"), r.ratio() < 0 ? QJsonValue() : QJsonValue(r.ratio()));
        array.append(o);
    }
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(
            QJsonDocument(QJsonObject{{"runs", Runs}, {"machine", machine()}, {"figures", array}})
                .toJson());
}

} // namespace kelobench
