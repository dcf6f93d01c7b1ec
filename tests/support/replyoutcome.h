#pragma once

#include <QByteArray>
#include <QNetworkReply>

/// What a finished QNetworkReply brought back, for tests that talk to the cloud directly.
struct ReplyOutcome
{
    QNetworkReply::NetworkError error = QNetworkReply::NoError;
    int status = 0;
    QByteArray body;
    QByteArray location;
};

/// Waits (up to 15 s) for @p reply to finish, reads it and releases it with deleteLater().
ReplyOutcome finishReply(QNetworkReply* reply);
