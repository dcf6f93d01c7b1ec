#pragma once

#include <QByteArray>
#include <QList>
#include <QSignalSpy>
#include <QStringList>

#include <memory>
#include <vector>

/// A QSignalSpy on every signal that @p object's own class declares (not its bases'), except
/// those named in @p skip: a test then checks every count at once, zeros included.
class SignalRecorder
{
public:
    explicit SignalRecorder(QObject* object, const QList<QByteArray>& skip = {});

    /// The spy of signal @p name, e.g. "networkError"; an unknown name is a fatal test error.
    QSignalSpy& operator[](const QByteArray& name) const;
    /// "name xN" for every signal emitted so far, in declaration order.
    QStringList fired() const;
    /// The arguments of every emission, signal by signal in declaration order.
    QList<QList<QVariantList>> all() const;

private:
    std::vector<std::pair<QByteArray, std::unique_ptr<QSignalSpy>>> spies;
};
