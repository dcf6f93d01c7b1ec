#include "cloudserver.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    kelocloud::CloudServer server;
    QString error;
    if (!server.start(&error)) {
        QTextStream(stderr) << "kelo-cloud: " << error << '\n';
        return 1;
    }
    QTextStream(stdout) << "port " << server.port() << "\nca " << server.caCertificatePath() << '\n';
    return app.exec();
}
