// kelo-cloud as integrators start it: the merchant fixture and the signing key on its command
// line or in its environment, its two start-up lines, a CA file that clients can trust, and a
// clean quit on SIGTERM; the control token from its command line or environment (or none on
// loopback) and a bad one refused; and as the network lab starts it: another address, a made-up
// menu of any size, pictures of a given size exported for another web server.
#include "replyoutcome.h"
#include "testcloud.h"
#include "testwait.h"

#include <QImage>
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
    void labOptionsServeTheMenu_data();
    void labOptionsServeTheMenu();
    void badLabOptionStopsTheTool_data();
    void badLabOptionStopsTheTool();
    void controlTokenFromOptionOrEnvironment_data();
    void controlTokenFromOptionOrEnvironment();
    void badControlTokenStopsTheTool_data();
    void badControlTokenStopsTheTool();

private:
    /// Starts kelo-cloud with @p arguments, its CA (and XDG data) in the test's directory,
    /// KELO_CLOUD_KEY set to @p keyVariable and KELO_CLOUD_CONTROL_TOKEN to @p tokenVariable
    /// (null: unset).
    void start(QProcess& tool, const QStringList& arguments, const QString& keyVariable = QString(),
               const QString& tokenVariable = QString())
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_DATA_HOME", dir.path());
        env.insert("XDG_RUNTIME_DIR", dir.path()); // private, as Qt Gui wants it
        env.remove("KELO_CLOUD_KEY");
        env.remove("KELO_CLOUD_CONTROL_TOKEN");
        if (!keyVariable.isNull())
            env.insert("KELO_CLOUD_KEY", keyVariable);
        if (!tokenVariable.isNull())
            env.insert("KELO_CLOUD_CONTROL_TOKEN", tokenVariable);
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

void TestSimulator::labOptionsServeTheMenu_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("address");     // where it listens and its certificate names
    QTest::addColumn<int>("dishes");          // in the menu
    QTest::addColumn<int>("pictureBytes");    // 0: as drawn
    QTest::addColumn<QString>("pictureHost"); // "img_host"; empty: the server itself
    QTest::addColumn<bool>("exported");

    QTest::newRow("another loopback address, 3 dishes of 2 KiB")
        << QStringList{"--listen", "127.0.0.2", "--dishes", "3", "--picture-bytes", "2048"}
        << "127.0.0.2" << 3 << 2048 << "" << false;
    QTest::newRow("pictures elsewhere, exported, 30 KiB")
        << QStringList{"--dishes",          "4",
                       "--picture-bytes",   "30720",
                       "--picture-host",    "https://198.18.0.2:9443",
                       "--export-pictures", "EXPORT"}
        << "127.0.0.1" << 4 << 30720 << "https://198.18.0.2:9443" << true;
    QTest::newRow("smallest pictures") << QStringList{"--dishes", "2", "--picture-bytes", "1024"}
                                       << "127.0.0.1" << 2 << 1024 << "" << false;
    QTest::newRow("fixture's menu, pictures sized")
        << QStringList{"--picture-bytes", "5000"} << "127.0.0.1" << -1 << 5000 << "" << false;
    QTest::newRow("no dishes") << QStringList{"--dishes", "0"} << "127.0.0.1" << 0 << 0 << ""
                               << false;
}

void TestSimulator::labOptionsServeTheMenu()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, address);
    QFETCH(int, dishes);
    QFETCH(int, pictureBytes);
    QFETCH(QString, pictureHost);
    QFETCH(bool, exported);
    QTemporaryDir exportDir;
    arguments.replaceInStrings(QRegularExpression("^EXPORT$"), exportDir.path());
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments);
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.readAllStandardOutput()).count('\n') >= 2 ||
                                 tool.state() == QProcess::NotRunning,
                             kWait);
    const QRegularExpressionMatch started =
        QRegularExpression("^kelo-cloud listening on (" + QRegularExpression::escape(address) +
                           ":\\d+)\n")
            .match(QString::fromUtf8(out));
    QVERIFY2(started.hasMatch(), (out + tool.readAllStandardError()).constData());
    const QString hostPort = started.captured(1);

    // Only the development CA is trusted here: the certificate must name the address.
    QFile ca(dir.filePath("ca.pem"));
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());
    QNetworkAccessManager nam;
    const ReplyOutcome menuReply = finishReply(
        nam.get(QNetworkRequest(QUrl("https://" + hostPort + "/kelo/api/item/?cm=getlist&dt=" +
                                     QUrl::toPercentEncoding(R"({"merchant_code":"M01"})")))));
    QVERIFY2(menuReply.error == QNetworkReply::NoError,
             qPrintable(QString::number(menuReply.error)));
    const QJsonObject dt = QJsonDocument::fromJson(menuReply.body).object()["dt"].toObject();
    QCOMPARE(dt["img_host"].toString(),
             pictureHost.isEmpty() ? "https://" + hostPort : pictureHost);
    const QJsonArray items = dt["items"].toArray();
    if (dishes >= 0) {
        QCOMPARE(items.size(), dishes);
        for (int i = 0; i < dishes; ++i) {
            QCOMPARE(items.at(i)["item_id"].toInt(), i + 1);
            QCOMPARE(items.at(i)["img_path"].toString(),
                     QStringLiteral("/pictures/dish-%1.png").arg(i + 1));
        }
    } else {
        QVERIFY(items.size() > 1); // the fixture's
    }

    // Every picture: a PNG that loads, of the asked size, each dish its own; the exported file
    // holds the same bytes as the server serves.
    QSet<QByteArray> distinct;
    for (const QJsonValue item : items) {
        const QString path = item["img_path"].toString();
        const ReplyOutcome picture =
            finishReply(nam.get(QNetworkRequest(QUrl("https://" + hostPort + path))));
        QVERIFY2(picture.error == QNetworkReply::NoError, qPrintable(path));
        if (pictureBytes > 0)
            QCOMPARE(picture.body.size(), pictureBytes);
        QVERIFY2(!QImage::fromData(picture.body, "PNG").isNull(), qPrintable(path));
        distinct.insert(picture.body);
        QFile file(exportDir.path() + path);
        QCOMPARE(file.exists(), exported);
        if (exported) {
            QVERIFY(file.open(QIODevice::ReadOnly));
            QCOMPARE(file.readAll(), picture.body);
        }
    }
    QCOMPARE(distinct.size(), items.size());
    tool.terminate();
    QCOMPARE(outcome(tool), QStringLiteral("0||"));
}

void TestSimulator::badLabOptionStopsTheTool_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("status");    // 2: refused option, 1: cannot start or write
    QTest::addColumn<QString>("error"); // the whole of stderr, after "kelo-cloud: "
    QTest::newRow("--listen not an address") << QStringList{"--listen", "cloud.local"} << 2
                                             << "--listen: not an IPv4 address: cloud.local";
    QTest::newRow("--listen IPv6")
        << QStringList{"--listen", "::1"} << 2 << "--listen: not an IPv4 address: ::1";
    QTest::newRow("--listen an address not here")
        << QStringList{"--listen", "192.0.2.1"} << 1
        << "cannot listen on 192.0.2.1:0: Cannot assign requested address";
    QTest::newRow("--dishes negative")
        << QStringList{"--dishes", "-1"} << 2 << "--dishes: expected 0 to 1000000, got -1";
    QTest::newRow("--dishes not a number")
        << QStringList{"--dishes", "many"} << 2 << "--dishes: expected 0 to 1000000, got many";
    QTest::newRow("--picture-bytes too small")
        << QStringList{"--picture-bytes", "1023"} << 2
        << "--picture-bytes: pictures must have 1024 to 16777216 bytes (got 1023)";
    QTest::newRow("--picture-bytes too large")
        << QStringList{"--picture-bytes", "16777217"} << 2
        << "--picture-bytes: pictures must have 1024 to 16777216 bytes (got 16777217)";
    QTest::newRow("--picture-bytes not a number")
        << QStringList{"--picture-bytes", "30k"} << 2 << "--picture-bytes: not a number";
    QTest::newRow("--picture-host plain http")
        << QStringList{"--picture-host", "http://198.18.0.2:9443"} << 2
        << "--picture-host: expected https://host[:port], got http://198.18.0.2:9443";
    QTest::newRow("--picture-host with a path")
        << QStringList{"--picture-host", "https://198.18.0.2/pics"} << 2
        << "--picture-host: expected https://host[:port], got https://198.18.0.2/pics";
    QTest::newRow("--export-pictures into a file")
        << QStringList{"--dishes", "1", "--export-pictures", "/dev/null"} << 1
        << "cannot write /dev/null/pictures/dish-1.png";
}

void TestSimulator::badLabOptionStopsTheTool()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, status);
    QFETCH(QString, error);
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments);
    QCOMPARE(outcome(tool), QString::number(status) + "||kelo-cloud: " + error + '\n');
}

QTEST_GUILESS_MAIN(TestSimulator)
void TestSimulator::controlTokenFromOptionOrEnvironment_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("variable"); // KELO_CLOUD_CONTROL_TOKEN; null: unset
    QTest::addColumn<QString>("token");    // the one printed and needed; empty: none

    const QString option = "opt-" + QString(28, 'o'), variable = "env_" + QString(28, 'e');
    QTest::newRow("loopback, none given: none needed") << QStringList() << QString() << "";
    QTest::newRow("another loopback address: none needed")
        << QStringList{"--listen", "127.0.0.3"} << QString() << "";
    QTest::newRow("--control-token")
        << QStringList{"--control-token", option} << QString() << option;
    QTest::newRow("KELO_CLOUD_CONTROL_TOKEN") << QStringList() << variable << variable;
    QTest::newRow("the option before the variable")
        << QStringList{"--control-token", option} << variable << option;
}

void TestSimulator::controlTokenFromOptionOrEnvironment()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, variable);
    QFETCH(QString, token);
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments, QString(), variable);
    const int lines = token.isEmpty() ? 2 : 3;
    QByteArray out;
    QTRY_VERIFY_WITH_TIMEOUT((out += tool.readAllStandardOutput()).count('\n') >= lines ||
                                 tool.state() == QProcess::NotRunning,
                             kWait);
    QTest::qWait(200); // a third line that should not be there
    out += tool.readAllStandardOutput();
    const QRegularExpressionMatch started =
        QRegularExpression(
            "^kelo-cloud listening on (127\\.0\\.0\\.\\d:\\d+)\nkelo-cloud CA "
            "certificate: [^\n]+\n" +
            (token.isEmpty() ? QString() : "kelo-cloud control token: " + token + "\n") + "$")
            .match(QString::fromUtf8(out));
    QVERIFY2(started.hasMatch(), (out + tool.readAllStandardError()).constData());

    QFile ca(dir.filePath("ca.pem"));
    QVERIFY(ca.open(QIODevice::ReadOnly));
    trustCertificateAuthority(ca.readAll());
    QNetworkAccessManager nam;
    const auto state = [&](const QByteArray& sent) {
        QNetworkRequest request(QUrl("https://" + started.captured(1) + "/_sim/state"));
        if (!sent.isNull())
            request.setRawHeader("X-Kelo-Control-Token", sent);
        return finishReply(nam.get(request)).status;
    };
    QCOMPARE(state(QByteArray()), token.isEmpty() ? 200 : 403);
    QCOMPARE(state(QByteArray("x").repeated(32)), token.isEmpty() ? 200 : 403);
    if (!token.isEmpty())
        QCOMPARE(state(token.toUtf8()), 200);
    tool.terminate();
    QCOMPARE(outcome(tool), QStringLiteral("0||"));
}

void TestSimulator::badControlTokenStopsTheTool_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("variable"); // KELO_CLOUD_CONTROL_TOKEN; null: unset
    QTest::addColumn<QString>("error");    // the whole of stderr, after "kelo-cloud: "
    const QString good = QString(16, 't');
    QTest::newRow("--control-token empty")
        << QStringList{"--control-token", ""} << good
        << "--control-token: a control token has 16 to 128 characters, not 0";
    QTest::newRow("--control-token too short")
        << QStringList{"--control-token", good.chopped(1)} << QString()
        << "--control-token: a control token has 16 to 128 characters, not 15";
    QTest::newRow("KELO_CLOUD_CONTROL_TOKEN too long")
        << QStringList() << QString(129, 't')
        << "KELO_CLOUD_CONTROL_TOKEN: a control token has 16 to 128 characters, not 129";
    QTest::newRow("--control-token with a space")
        << QStringList{"--control-token", good + " x"} << QString()
        << "--control-token: a control token holds only A-Z a-z 0-9 - _";
    QTest::newRow("KELO_CLOUD_CONTROL_TOKEN with a colon")
        << QStringList() << good + ":"
        << "KELO_CLOUD_CONTROL_TOKEN: a control token holds only "
           "A-Z a-z 0-9 - _";
}

void TestSimulator::badControlTokenStopsTheTool()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, variable);
    QFETCH(QString, error);
    QProcess tool;
    start(tool, QStringList{"--port", "0"} + arguments, QString(), variable);
    QCOMPARE(outcome(tool), "2||kelo-cloud: " + error + '\n');
}

#include "tst_simulator.moc"
