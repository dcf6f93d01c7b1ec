#include "signalrecorder.h"

#include <QMetaMethod>

SignalRecorder::SignalRecorder(QObject* object, const QList<QByteArray>& skip)
{
    const QMetaObject* meta = object->metaObject();
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        if (method.methodType() == QMetaMethod::Signal && !skip.contains(method.name()))
            spies.emplace_back(method.name(), std::make_unique<QSignalSpy>(object, method));
    }
}

QSignalSpy& SignalRecorder::operator[](const QByteArray& name) const
{
    for (const auto& spy : spies)
        if (spy.first == name)
            return *spy.second;
    qFatal("SignalRecorder: no signal named %s", name.constData());
}

QStringList SignalRecorder::fired() const
{
    QStringList names;
    for (const auto& spy : spies)
        if (!spy.second->isEmpty())
            names << QStringLiteral("%1 x%2")
                         .arg(QString::fromLatin1(spy.first))
                         .arg(spy.second->size());
    return names;
}

QList<QList<QVariantList>> SignalRecorder::all() const
{
    QList<QList<QVariantList>> emissions;
    for (const auto& spy : spies)
        emissions.append(*spy.second);
    return emissions;
}
