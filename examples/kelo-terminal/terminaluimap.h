#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QObject>
#include <QPointer>
#include <QQuickWindow>
#include <QString>
#include <QTimer>

class QQuickItem;

/**
 * Where the window's named parts are on the screen, for a driver outside the process (the
 * live-window test taps them with xdotool, as a finger would): every visible item with an
 * objectName and every key of the on-screen keyboard, with its rectangle in screen coordinates.
 *
 * The map is a JSON file, replaced whole (written beside it, then renamed) at most every 100 ms
 * while the window draws, and only when it changed:
 *
 *     { "focus": "userField",
 *       "items": [ { "name": "login", "x": 324, "y": 412, "width": 376, "height": 64,
 *                    "enabled": true, "text": "Log in" }, ... ] }
 *
 * A key is named "key:" and its text ("key:b"), or "key#" and its Qt key code when it types no
 * text (shift, backspace, the symbols key). A password field's text is never written.
 */
class TerminalUiMap : public QObject
{
    Q_OBJECT
public:
    TerminalUiMap(QQuickWindow* window, const QString& path, QObject* parent = nullptr);

private:
    void write();
    void collect(QQuickItem* item, QJsonArray* items) const;
    QString nameOf(QQuickItem* item) const;

    QPointer<QQuickWindow> window;
    QString path;
    QTimer coalesce;
    QByteArray written;
};
