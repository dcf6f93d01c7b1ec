#include "logcapture.h"

namespace {
LogCapture* active = nullptr;
}

LogCapture::LogCapture()
{
    active = this;
    previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous);
    active = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (LogCapture* self = active) {
        QMutexLocker lock(&self->mutex);
        self->captured.append({type, message});
        if (self->previous)
            self->previous(type, context, message);
    }
}

QStringList LogCapture::lines() const
{
    QMutexLocker lock(&mutex);
    QStringList out;
    for (const auto& line : captured)
        out.append(line.second);
    return out;
}

QStringList LogCapture::lines(QtMsgType type) const
{
    QMutexLocker lock(&mutex);
    QStringList out;
    for (const auto& line : captured)
        if (line.first == type)
            out.append(line.second);
    return out;
}

int LogCapture::count(const QString& text) const
{
    int n = 0;
    for (const QString& line : lines())
        if (line.contains(text))
            ++n;
    return n;
}

void LogCapture::clear()
{
    QMutexLocker lock(&mutex);
    captured.clear();
}
