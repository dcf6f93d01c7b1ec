#pragma once

// Private to the library: what a Kelosdk keeps beyond the members its public header declares.

#include "kelolimits_p.h"

#include <QList>
#include <QPointer>
#include <QtGlobal>

class QObject;
class WSClient;

class KelosdkPrivate
{
public:
    /// The notification client; it is never deleted and outlives the SDK object.
    WSClient* client = nullptr;

    /// What the SDK object waits on: its request objects (children of the object) and its
    /// picture runs (CDownloadFileMan, no parent), from their start until their result is handled
    /// or they are abandoned. Each flow's handlers capture their own object; nothing here is
    /// shared between flows.
    QList<QPointer<QObject>> inFlight;

    qint64 maxReplyBytes = kelo_limits::DefaultMaxReplyBytes;
    qint64 maxPictureBytes = kelo_limits::DefaultMaxPictureBytes;
    qint64 maxNotificationBytes = kelo_limits::DefaultMaxNotificationBytes;

    /// Starts waiting on @p object.
    void track(QObject* object);
    /// The result of @p object is being handled: it is no longer waited on, leaves the SDK object
    /// (so that a host deleting the SDK from the result's slot does not delete it inside its own
    /// signal) and is released with deleteLater(). False, doing nothing, if @p object is not
    /// waited on.
    bool settle(QObject* object);
    /// Abandons everything waited on: each object is disconnected from @p owner, a request
    /// aborted, a picture run stopped, and all released with deleteLater(), so that no late
    /// answer of theirs ever reaches @p owner.
    void abandonAll(QObject* owner);
};
