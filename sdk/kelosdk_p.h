#pragma once

// Private to the library: what a Kelosdk keeps beyond the members its public header declares.

#include "kelolimits_p.h"

#include <QtGlobal>

class HttpBase2;
class WSClient;

class KelosdkPrivate
{
public:
    /// The notification client; it is never deleted and outlives the SDK object.
    WSClient* client = nullptr;
    /// The e-wallet chain's request object while the chain runs.
    HttpBase2* transferRequest = nullptr;

    qint64 maxReplyBytes = kelo_limits::DefaultMaxReplyBytes;
    qint64 maxPictureBytes = kelo_limits::DefaultMaxPictureBytes;
    qint64 maxNotificationBytes = kelo_limits::DefaultMaxNotificationBytes;
};
