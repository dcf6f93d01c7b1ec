#include "simulatorcontrol.h"

#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>
#include <QUrlQuery>

SimulatorControl::SimulatorControl(const QString& hostPort, QObject* parent)
    : QObject(parent), hostPort(hostPort)
{
}

void SimulatorControl::markInvoicePaid(const QString& invoiceCode)
{
    QUrlQuery form;
    form.addQueryItem(QStringLiteral("invoice_code"),
                      QString::fromLatin1(QUrl::toPercentEncoding(invoiceCode)));
    QNetworkRequest request(QUrl(QStringLiteral("https://%1/_sim/invoice/paid").arg(hostPort)));
    request.setHeader(QNetworkRequest::ContentTypeHeader, "application/x-www-form-urlencoded");
    QNetworkReply* reply = network.post(request, form.query(QUrl::FullyEncoded).toUtf8());
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        reply->deleteLater();
        const QString body = QString::fromUtf8(reply->readAll());
        const bool ok = reply->error() == QNetworkReply::NoError;
        emit finished(ok, ok ? body : reply->errorString());
    });
}
