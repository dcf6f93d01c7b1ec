#include "replyoutcome.h"

#include "testwait.h"

#include <QSignalSpy>

ReplyOutcome finishReply(QNetworkReply* reply)
{
    QSignalSpy finished(reply, &QNetworkReply::finished);
    if (!reply->isFinished())
        finished.wait(kWait);
    ReplyOutcome outcome;
    outcome.error = reply->error();
    outcome.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->isOpen())
        outcome.body = reply->readAll();
    outcome.location = reply->rawHeader("Location");
    reply->deleteLater();
    return outcome;
}
