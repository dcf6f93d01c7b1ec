// Shared by the Kelosdk suites: one local cloud per test executable, a fresh SDK object per test.
#pragma once

#include "kelosdk.h"
#include "tempdatalocation.h"
#include "testcloud.h"
#include "testwait.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QStandardPaths>
#include <QtTest>

#include <functional>
#include <memory>

using kelocloud::CloudExchange;
using kelocloud::CloudReply;

/// One request slot call, as a data-table value.
using SdkCall = std::function<void(Kelosdk&)>;
Q_DECLARE_METATYPE(SdkCall)
Q_DECLARE_METATYPE(kelocloud::CloudReply)

constexpr char kMerchant[] = "M01";
constexpr char kMachine[] = "POS-1";

/// A scripted answer with @p body (status 200).
inline CloudReply replyWith(const QByteArray& body, int status = 200)
{
    CloudReply reply;
    reply.status = status;
    reply.body = body;
    return reply;
}

/// A scripted transport fault.
inline CloudReply faultReply(CloudReply::Fault fault)
{
    CloudReply reply;
    reply.fault = fault;
    return reply;
}

/// The local cloud of one suite and the SDK object of the current test.
class SdkFixture
{
public:
    /// Starts the cloud and points the SDK at it; call from initTestCase().
    bool startCloud()
    {
        // A picture cache of this run alone: one left by an earlier run (or by the same suite
        // running elsewhere at once) would answer from the cache and hide requests.
        if (!data.isValid())
            return false;
        if (!cloud.start())
            return false;
        cloud.pointSdkHere();
        return true;
    }

    /// A fresh SDK object on a quiet server (no scripts, no recorded requests); its device id
    /// is in device.
    Kelosdk& newSdk(bool debug = false)
    {
        cloud->clearScripts();
        cloud->clearExchanges();
        sdk.reset(
            new Kelosdk(QString::fromLatin1(kMerchant), QString::fromLatin1(kMachine), debug));
        device = newDevice();
        return *sdk;
    }

    /// The device id of the SDK object constructed last: the one its notification client names
    /// in "get_ws_session" and no earlier object did. Clients of deleted objects live on and
    /// may ask again, so every object constructed on this cloud is followed by this call.
    QString newDevice()
    {
        QString found;
        const bool seen = QTest::qWaitFor(
            [&] {
                for (const CloudExchange& e :
                     cloud->exchanges("/kelo/api/common", QStringLiteral("get_ws_session"))) {
                    const QString devid =
                        QJsonDocument::fromJson(e.param(QStringLiteral("dt")).toUtf8())
                            .object()
                            .value(QStringLiteral("devid"))
                            .toString();
                    if (!known.contains(devid)) {
                        found = devid;
                        return true;
                    }
                }
                return false;
            },
            kWait);
        if (!seen)
            qWarning("no new device asked for a notification session");
        known.insert(found);
        return found;
    }

    /// Scripts @p failure for the next request of @p path / @p cm. Qt sends a request once more
    /// when its connection closes before any answer, so a fault is scripted for every attempt;
    /// clearScripts() ends it.
    void scriptFailure(const QByteArray& path, const QString& cm, const CloudReply& failure)
    {
        cloud->scriptReply(path, cm, failure, 10);
    }

    /// Waits until @p count requests of @p path / @p cm have been received.
    bool waitExchanges(const QByteArray& path, const QString& cm, int count)
    {
        return QTest::qWaitFor([&] { return cloud->exchanges(path, cm).size() >= count; }, kWait);
    }

    TempDataLocation data;
    TestCloud cloud;
    std::unique_ptr<Kelosdk> sdk;
    QString device;

private:
    QSet<QString> known;
};
