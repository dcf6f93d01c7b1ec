// kelo-cloud as integrators start it: the merchant fixture and the signing key on its command
// line or in its environment, its two start-up lines, a CA file that clients can trust, and a
// clean quit on SIGTERM.
#include "replyoutcome.h"
#include "testcloud.h"
#include "testwait.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QNetworkAccessManager>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

class TestSimulator : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void badFixtureStopsTheTool_data();
    void badFixtureStopsTheTool();
    void customFixtureIsServedUntilSigterm();
    void keyFromOptionOrEnvironment_data();
    void keyFromOptionOrEnvironment();
    void badKeyStopsTheTool_data();
    void badKeyStopsTheTool();
    void helpNamesTheKeySettings();

private:
    /// Starts kelo-cloud with @p arguments, its CA (and XDG data) in the test's directory, and
    /// KELO_CLOUD_KEY set to @p keyVariable (null: unset).
    void start(QProcess& tool, const QStringList& arguments, const QString& keyVariable = QString())
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", dir.path());
        env.insert("XDG_RUNTIME_DIR", dir.path()); // private, as Qt Gui wants it
        env.remove("KELO_CLOUD_KEY");
        if (!keyVariable.isNull())
            env.insert("KELO_CLOUD_KEY", keyVariable);
        tool.setProcessEnvironment(env);
        // A cross-built tool runs through the emulator: "|" separates the command's words.
        const QStringList command = QStringLiteral(KELO_CLOUD_TOOL_COMMAND).split('|');
        tool.start(command.first(),
                   command.mid(1) + QStringList{"--ca-dir", dir.path()} + arguments);
    }
    /// "<exit code>|<rest of stdout>|<stderr>" once @p tool ended by itself.
    static QString outcome(QProcess& tool)
    {
        if (!tool.waitForFinished(kWait) || tool.exitStatus() != QProcess::NormalExit)
            return QStringLiteral("did not end");
        return QString::number(tool.exitCode()) + '|' + tool.readAllStandardOutput() + '|' +
               tool.readAllStandardError();
    }
    QString write(const QByteArray& content)
    {
        QFile file(dir.filePath("fixture.json"));
        return file.open(QIODevice::WriteOnly) && file.write(content) == content.size()
                   ? file.fileName()
                   : QString();
    }

    QTemporaryDir dir;
};

void TestSimulator::badFixtureStopsTheTool_data()
{
    QTest::addColumn<QByteArray>("content"); // null: no such file
    QTest::addColumn<QString>("error");      // after "<file>: "
    const QByteArray head =
        R"({"merchant":{"code":"M9","name":"N"},"staff":[],"tables":[{"id":1,"name":"T"}],)";
    const QByteArray dish =
        R"({"item_id":1,"item_name":"A","price":1,"img_path":"/a.png","img_crc":"1"})";
    QFile missing(dir.filePath("missing.json"));
    QVERIFY(!missing.open(QIODevice::ReadOnly));
    QTest::newRow("no such file") << QByteArray() << "cannot read: " + missing.errorString();
    QTest::newRow("malformed") << QByteArray("{\n  \"merchant\": {\n    \"code\" \"M9\"}}")
                               << "line 3, column 13: missing name separator";
    QTest::newRow("duplicate item id") << head + R"("menu":[)" + dish + "," + dish + "]}"
                                       << "menu[1].item_id: duplicate id 1";
    QTest::newRow("order at unknown table")
        << head + R"("menu":[],"orders":[{"table_id":4,"staff_id":1,"amount":0,"items":[]}]})"
        << "orders[0].table_id: no table with id 4";
}

void TestSimulator::badFixtureStopsTheTool()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, error);
    const QString path = content.isNull() ? dir.filePath("missing.json") : write(content);
    QProcess tool;
    start(tool, {"--port", "0", "--fixture", path});
    QCOMPARE(outcome(tool),
             "2||kelo-cloud: cannot load the fixture: " + path + ": " + error + '\n');
}

void TestSimulator::customFixtureIsServedUntilSigterm()
{
    // The printed fixture is an integrator's starting point: changed, it is served as it stands.
    QProcess printer;
    start(printer, {"--print-fixture"});
    QVERIFY(printer.waitForFinished(kWait));
    QJsonObject fixture = QJsonDocument::fromJson(printer.readAllStandardOutput()).object();
    QCOMPARE(fixture.value("merchant")["code"].toString(), QStringLiteral("M01"));
    fixture["merchant"] = QJsonObject{{"code", "M77"}, {"name", "Harbour Noodles"}};
    fixture["staff"] = QJsonArray{QJsonObject{
        {"id", 41}, {"name", "Tuan Le"}, {"user", "tuan"}, {"password", "t1"}, {"role", "waiter"}}};
    fixture.remove("orders");
    QProcess tool;
    start(tool, {"--port", "0", "--fixture", write(QJsonDocument(fixture).toJson())});
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.readAllStandardOutput()).count('\n') >= 2, kWait);
    const QRegularExpressionMatch started =
        QRegularExpression("^kelo-cloud listening on (127\\.0\\.0\\.1:\\d+)\nkelo-cloud CA "
                           "certificate: " +
                           QRegularExpression::escape(dir.filePath("ca.pem")) + "\n$")
            .match(QString::fromUtf8(out));
    QVERIFY2(started.hasMatch(), out.constData());

    QFile ca(dir.filePath("ca.pem"));
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());
    QNetworkAccessManager nam;
    const auto login = [&](const char* merchant) {
        const QString dt =
            R"({"merchant_code":")" + QString(merchant) + R"(","p":"t1","u":"tuan"})";
        return finishReply(nam.get(QNetworkRequest(QUrl("https://" + started.captured(1) +
                                                        "/kelo/api/login/?cm=waiter_login&dt=" +
                                                        QUrl::toPercentEncoding(dt)))))
            .body;
    };
    QCOMPARE(
        login("M77"),
        QByteArray(R"({"dt":{"staff_id":41,"staff_name":"Tuan Le"},"err":0,"msg":"success"})"));
    QCOMPARE(login("M01"), QByteArray(R"({"dt":{},"err":203,"msg":"unknown merchant"})"));

    tool.terminate(); // SIGTERM
    QCOMPARE(outcome(tool), QStringLiteral("0||"));
}

void TestSimulator::keyFromOptionOrEnvironment_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("variable"); // KELO_CLOUD_KEY; null: unset
    QTest::addColumn<QByteArray>("key");   // the one that signs
    const QByteArray option = QByteArray("opt").leftJustified(32, '1'),
                     variable = QByteArray("env").leftJustified(32, '2'),
                     development(KELO_TEST_DEVELOPMENT_KEY);
    QTest::newRow("development key by default") << QStringList() << QString() << development;
    QTest::newRow("empty KELO_CLOUD_KEY") << QStringList() << QString("") << development;
    QTest::newRow("KELO_CLOUD_KEY") << QStringList() << QString(variable) << variable;
    QTest::newRow("--key over KELO_CLOUD_KEY")
        << QStringList{"--key", option} << QString(variable) << option;
}

void TestSimulator::keyFromOptionOrEnvironment()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, variable);
    QFETCH(QByteArray, key);
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments, variable);
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.readAllStandardOutput()).count('\n') >= 2, kWait);
    const QString hostPort =
        QRegularExpression("listening on (\\S+)\n").match(QString::fromUtf8(out)).captured(1);
    QFile ca(dir.filePath("ca.pem"));
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());
    QNetworkAccessManager nam;
    const auto post = [&](const QByteArray& form) {
        QNetworkRequest request(QUrl("https://" + hostPort + "/kelo/api/invoice/"));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
        return QJsonDocument::fromJson(finishReply(nam.post(request, form)).body).object();
    };
    const QByteArray session =
        post(R"(cm=get_session&dt={"devid":"D9","merchant_code":"M01"})")["dt"]
            .toObject()["invoice_session"]
            .toString()
            .toUtf8();
    QVERIFY(!session.isEmpty());
    const QByteArray dt = R"({"amount":"9000","description":"T1","devid":"D9",)"
                          R"("merchant_code":"M01","payment_method":"1"})";
    const auto create = [&](const QByteArray& signingKey) {
        const QByteArray tk =
            QMessageAuthenticationCode::hash(dt + session, signingKey, QCryptographicHash::Sha256)
                .toHex();
        return post("cm=create&tk=" + tk + "&dt=" + QUrl::toPercentEncoding(dt))["err"].toInt(-1);
    };
    QCOMPARE(create(key), 0);
    QCOMPARE(create(QByteArray(key).replace(0, 1, key.startsWith('x') ? "y" : "x")), 231);
    tool.terminate();
    QCOMPARE(outcome(tool), QStringLiteral("0||"));
}

void TestSimulator::badKeyStopsTheTool_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("variable"); // KELO_CLOUD_KEY; null: unset
    QTest::addColumn<QString>("error");    // the whole of stderr; never the key
    const QString rule = "the signing key must be 32 ASCII letters or digits ";
    const QString good = QString(32, 'k');
    QTest::newRow("--key too short")
        << QStringList{"--key", "abc"} << good << "--key: " + rule + "(got 3 characters)";
    QTest::newRow("--key empty") << QStringList{"--key", ""} << QString()
                                 << "--key: " + rule + "(got 0 characters)";
    QTest::newRow("--key with a dash")
        << QStringList{"--key", QString(good).replace(4, 1, '-')} << QString()
        << "--key: " + rule + "(character 5 is neither)";
    QTest::newRow("KELO_CLOUD_KEY with a space")
        << QStringList() << QString(good).replace(31, 1, ' ')
        << "KELO_CLOUD_KEY: " + rule + "(character 32 is neither)";
    QTest::newRow("KELO_CLOUD_KEY too long")
        << QStringList() << good + 'k' << "KELO_CLOUD_KEY: " + rule + "(got 33 characters)";
}

void TestSimulator::badKeyStopsTheTool()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, variable);
    QFETCH(QString, error);
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments, variable);
    QCOMPARE(outcome(tool), "2||kelo-cloud: " + error + '\n');
}

void TestSimulator::helpNamesTheKeySettings()
{
    QProcess tool;
    start(tool, {"--help"});
    const QString help = outcome(tool);
    QVERIFY2(help.startsWith("0|") && help.contains("--key <KEY>") &&
                 help.contains("KELO_CLOUD_KEY=<key> kelo-cloud"),
             qPrintable(help));
}

QTEST_GUILESS_MAIN(TestSimulator)
#include "tst_simulator.moc"
