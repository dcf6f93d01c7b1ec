#include "keloplugin.h"

#include "kelomenumodel.h"
#include "keloordermodel.h"
#include "keloqrimageprovider.h"
#include "kelotablemodel.h"
#include "keloterminal.h"

#include <QQmlEngine>

void KeloPlugin::registerTypes(const char* uri)
{
    // The menu placeholder that the SDK names ("qrc:/icons/images/defaultfood.png").
    Q_INIT_RESOURCE(keloqml);
    qmlRegisterType<KeloTerminal>(uri, 1, 0, "KeloTerminal");
    const QString owned = QStringLiteral("made by KeloTerminal");
    qmlRegisterUncreatableType<KeloMenuModel>(uri, 1, 0, "KeloMenuModel", owned);
    qmlRegisterUncreatableType<KeloTableModel>(uri, 1, 0, "KeloTableModel", owned);
    qmlRegisterUncreatableType<KeloOrderModel>(uri, 1, 0, "KeloOrderModel", owned);
}

void KeloPlugin::initializeEngine(QQmlEngine* engine, const char*)
{
    if (!engine->imageProvider(QStringLiteral("kelo-qr")))
        engine->addImageProvider(QStringLiteral("kelo-qr"), new KeloQrImageProvider);
}
