// Qt Quick Test suites of the QML module Kelo (tests/qml/terminal/tst_*.qml) against the local
// cloud in this process. The cloud's CA is NOT trusted by the process: each KeloTerminal trusts
// it through its caFile, as a pure-QML host does.
#include "cloudcontrol.h"
#include "tempdatalocation.h"
#include "testcloud.h"
#include "testwait.h"

#include <QDir>
#include <QQmlContext>
#include <QQmlEngine>
#include <QtQuickTest>

#include <memory>

using kelocloud::CloudReply;

/// What the QML suites may do to the cloud: the customer's side and scripted faults.
class TestCloudControl : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString hostPort READ hostPort CONSTANT)
    Q_PROPERTY(QString caFile READ caFile CONSTANT)
    Q_PROPERTY(QString images READ images CONSTANT)
public:
    TestCloudControl() : cloud(TestCloud::Untrusted) {}

    bool start()
    {
        if (!data.isValid() || !cloud.start())
            return false;
        routes = std::make_unique<kelocloud::CloudControl>(cloud.server());
        return true;
    }
    QString hostPort() const { return cloud.hostPort(); }
    QString caFile() { return cloud->caCertificatePath(); }
    QString images() const { return data.images(); }

    /// The customer pays invoice @p code; false if it is not open.
    Q_INVOKABLE bool markPaid(const QString& code) { return cloud->markInvoicePaid(code); }
    /// One text frame to every notification socket; how many got it.
    Q_INVOKABLE int pushAll(const QString& text) { return cloud->pushAll(text.toUtf8()); }
    /// The next @p times matching requests get @p body with @p status.
    Q_INVOKABLE void answer(const QString& path, const QString& cm, const QString& body,
                            int status = 200, int times = 1)
    {
        CloudReply reply;
        reply.status = status;
        reply.body = body.toUtf8();
        cloud->scriptReply(path.toUtf8(), cm, reply, times);
    }
    /// The next matching request is never answered.
    Q_INVOKABLE void neverAnswer(const QString& path, const QString& cm)
    {
        CloudReply reply;
        reply.fault = CloudReply::Fault::NeverAnswer;
        cloud->scriptReply(path.toUtf8(), cm, reply);
    }
    /// The next @p times matching requests see the connection reset before any answer.
    Q_INVOKABLE void reset(const QString& path, const QString& cm, int times)
    {
        CloudReply reply;
        reply.fault = CloudReply::Fault::ResetBeforeHeaders;
        cloud->scriptReply(path.toUtf8(), cm, reply, times);
    }
    /// The next matching request gets its normal answer @p ms late.
    Q_INVOKABLE void delay(const QString& path, const QString& cm, int ms)
    {
        CloudReply reply;
        reply.normalAnswer = true;
        reply.delayMs = ms;
        cloud->scriptReply(path.toUtf8(), cm, reply);
    }
    Q_INVOKABLE void clearScripts() { cloud->clearScripts(); }
    /// Closes every notification socket abruptly; how many were open.
    Q_INVOKABLE int dropWebSockets() { return cloud->dropWebSockets(); }
    /// Requests received so far on @p path (with "cm" @p cm if not empty).
    Q_INVOKABLE int requests(const QString& path, const QString& cm = {})
    {
        return cloud->exchanges(path.toUtf8(), cm).size();
    }
    /// Empties the terminal's picture cache.
    Q_INVOKABLE bool clearPictureCache() { return QDir(data.images()).removeRecursively(); }

private:
    TempDataLocation data; // before the cloud: the SDK caches pictures below it
    TestCloud cloud;
    std::unique_ptr<kelocloud::CloudControl> routes;
};

class Setup : public QObject
{
    Q_OBJECT
public Q_SLOTS:
    void applicationAvailable()
    {
        control = std::make_unique<TestCloudControl>();
        if (!control->start())
            qFatal("the test cloud did not start");
    }
    void qmlEngineAvailable(QQmlEngine* engine)
    {
        engine->addImportPath(QStringLiteral(KELO_QML_BUILD_DIR));
        engine->rootContext()->setContextProperty(QStringLiteral("testCloud"), control.get());
        // The suites wait with the C++ suites' wait (testwait.h).
        engine->rootContext()->setContextProperty(QStringLiteral("testWait"), kWait);
    }
    void cleanupTestCase() { control.reset(); }

private:
    std::unique_ptr<TestCloudControl> control;
};

QUICK_TEST_MAIN_WITH_SETUP(qml_terminal, Setup)

#include "tst_qml_terminal.moc"
