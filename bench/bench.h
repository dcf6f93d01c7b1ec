// The main figures: one connected Kelosdk against the in-process local cloud, each figure beside
// what an integrator would write by hand.
#pragma once

#include "benchsupport.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUrl>

#include <memory>

class Kelosdk;
class QWebSocket;

namespace kelocloud {
class CloudServer;
}

namespace kelobench {

class Bench
{
public:
    Bench(kelocloud::CloudServer& cloud, int dishes = Dishes, int pictureBytes = PictureBytes);
    ~Bench();

    bool setUp();

    // 1, 2: the cold and warm menu syncs, and the parts of the warm one
    QList<Row> menuSync();
    QList<Row> warmParts();
    // one size of --scale
    QJsonObject scaleOne();
    // 3: a request's round trip
    Row roundTrip();
    // 5: push latency
    QList<Row> pushLatency(bool pinned);
    // 6: idling, in a child process
    static QList<Row> idleAlone(int seconds, const QString& cloudExe);
    // 7: reconnecting
    Row reconnect();
    // 9: the reply cap
    Row refusedHugeAnswer();

private:
    QString pictureDir() const;
    double sdkFoods(int timeoutMs = 120000);
    QUrl requestUrl(const QByteArray& path, const QString& cm);
    double bareFoods(const QUrl& menuUrl, const QString& dir);
    bool openBareSocket(QWebSocket& socket, const QString& devid);
    QString sdkDevice();
    static bool pinApart(bool apart);
    static bool resetPeakRss();
    static double residentBytes(const char* field);

    kelocloud::CloudServer& cloud;
    const int dishes;
    const int pictureBytes;
    int replyBytes = 0;
    std::unique_ptr<Kelosdk> sdk;
    bool connected = false;
    Clock::time_point connectedAt;
};

} // namespace kelobench
