#include "terminaluimap.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QQuickItem>
#include <QSaveFile>

namespace {
// At most ten maps a second: enough for a driver that polls, little work while animations run.
constexpr int kCoalesceMs = 100;
// Qt Quick's TextInput.Normal: any other echo mode hides what was typed.
constexpr int kEchoNormal = 0;
} // namespace

TerminalUiMap::TerminalUiMap(QQuickWindow* window, const QString& path, QObject* parent)
    : QObject(parent), window(window), path(path)
{
    coalesce.setSingleShot(true);
    coalesce.setInterval(kCoalesceMs);
    connect(&coalesce, &QTimer::timeout, this, &TerminalUiMap::write);
    // Every change on screen ends in a frame; frameSwapped may come from the render thread, the
    // map is written on this one.
    connect(window, &QQuickWindow::frameSwapped, this, [this] {
        if (!coalesce.isActive())
            coalesce.start();
    });
    coalesce.start();
}

QString TerminalUiMap::nameOf(QQuickItem* item) const
{
    // The on-screen keyboard's keys have no names of ours: they are known by what they type.
    const QVariant key = item->property("key");
    if (key.isValid() && item->property("displayText").isValid()) {
        const QString text = item->property("text").toString();
        return text.isEmpty() ? QStringLiteral("key#%1").arg(key.toInt())
                              : QStringLiteral("key:") + text;
    }
    return item->objectName();
}

void TerminalUiMap::collect(QQuickItem* item, QJsonArray* items) const
{
    if (!item->isVisible() || item->opacity() <= 0)
        return;
    const QString name = nameOf(item);
    const QRectF onScreen = item->mapRectToScene(QRectF(0, 0, item->width(), item->height()))
                                .translated(window->position());
    const QRectF screen(window->position(), window->size());
    if (!name.isEmpty() && onScreen.intersects(screen)) {
        QJsonObject entry{{QStringLiteral("name"), name},
                          {QStringLiteral("x"), onScreen.x()},
                          {QStringLiteral("y"), onScreen.y()},
                          {QStringLiteral("width"), onScreen.width()},
                          {QStringLiteral("height"), onScreen.height()},
                          {QStringLiteral("enabled"), item->isEnabled()}};
        const QVariant text = item->property("text");
        const QVariant echo = item->property("echoMode");
        if (text.userType() == QMetaType::QString &&
            (!echo.isValid() || echo.toInt() == kEchoNormal))
            entry.insert(QStringLiteral("text"), text.toString());
        for (const char* flag : {"checked", "good"}) {
            const QVariant value = item->property(flag);
            if (value.userType() == QMetaType::Bool)
                entry.insert(QLatin1String(flag), value.toBool());
        }
        items->append(entry);
    }
    for (QQuickItem* child : item->childItems())
        collect(child, items);
}

void TerminalUiMap::write()
{
    if (!window)
        return;
    QJsonArray items;
    collect(window->contentItem(), &items);
    const QQuickItem* focus = window->activeFocusItem();
    const QByteArray map =
        QJsonDocument(QJsonObject{
                          {QStringLiteral("focus"), focus ? focus->objectName() : QString()},
                          {QStringLiteral("items"), items},
                      })
            .toJson(QJsonDocument::Compact);
    if (map == written)
        return;
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(map) == map.size() && file.commit())
        written = map;
    else
        qWarning("kelo-terminal: cannot write the window's map to %s", qPrintable(path));
}
