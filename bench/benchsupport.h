// What every figure of the bench shares: the constants, the timing helpers, the table's rows and
// their printing as a table and as JSON.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>

#include <chrono>
#include <functional>
#include <vector>

namespace kelobench {

using Clock = std::chrono::steady_clock;

constexpr char Merchant[] = "M01";
constexpr int Runs = 7;
constexpr int Dishes = 300;
constexpr int PictureBytes = 30 * 1024;

double msSince(Clock::time_point start);
double median(std::vector<double> v);
double percentile(std::vector<double> v, double p);

/// Runs the event loop until @p done holds or @p timeoutMs passes; false on timeout.
bool waitFor(const std::function<bool()>& done, int timeoutMs = 30000);

/// One line of the table.
struct Row
{
    QString figure;
    QString unit;
    double sdk = -1;      ///< < 0: not measured
    double baseline = -1; ///< < 0: no baseline
    QString goal;         ///< e.g. "ratio <= 1.15", "sdk <= 2"
    bool ratioGoal = false;
    double limit = 0;
    QString note;

    double ratio() const { return baseline > 0 && sdk >= 0 ? sdk / baseline : -1; }
    QString verdict() const
    {
        if (goal.isEmpty())
            return QStringLiteral("info");
        if (sdk < 0)
            return QStringLiteral("n/a");
        const double v = ratioGoal ? ratio() : sdk;
        if (v < 0)
            return QStringLiteral("n/a");
        return v <= limit ? QStringLiteral("PASS") : QStringLiteral("MISS");
    }
};

Row row(const QString& figure, const QString& unit, double sdk, double baseline,
        const QString& goal = {}, bool ratioGoal = false, double limit = 0);

void printTable(const QList<Row>& rows);

/// Cores, CPU model and load: the context every figure needs on a shared machine.
QJsonObject machine();

void writeJson(const QList<Row>& rows, const QString& path);

} // namespace kelobench
