#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QtGlobal>

/// Captures Qt log lines while it lives (one at a time per process); thread-safe.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    /// Every captured line, oldest first.
    QStringList lines() const;
    /// How many captured lines contain @p text.
    int count(const QString& text) const;
    /// Lines of one message type (QtDebugMsg, QtCriticalMsg, ...).
    QStringList lines(QtMsgType type) const;
    void clear();

private:
    static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message);
    mutable QMutex mutex;
    QList<QPair<QtMsgType, QString>> captured;
    QtMessageHandler previous = nullptr;
};
