#include "httpbase2.h"

#include "httprequest_p.h"

// HttpBase2 keeps its finished reply alive until it is destroyed; everything else is shared with
// its twin class.
using Request = kelo_detail::HttpRequest<HttpBase2>;

HttpBase2::HttpBase2(const QUrl& url, QObject* parent, bool debug)
    : QObject(parent), url(url), debug(debug)
{
    kelo_compat::manualRedirects(manager);
}

HttpBase2::~HttpBase2()
{
    Request::destroy(*this);
}

void HttpBase2::setUrl(const QUrl& newUrl)
{
    if (newUrl.isValid())
        url = newUrl;
}

void HttpBase2::setAgentname(const QString& name)
{
    agentname = name;
}

void HttpBase2::setUsernamePassword(const QString& user, const QString& pass)
{
    username = user;
    password = pass;
}

void HttpBase2::addParameter(const QString& key, const QVariant& value, bool clear)
{
    if (clear)
        params.clear();
    params.add(key, value, false);
}

void HttpBase2::setParameter(const HttpParams& newParams)
{
    params = newParams;
}

void HttpBase2::cancel()
{
    Request::cancel(*this);
}

void HttpBase2::setMaxReplySize(qint64 bytes)
{
    Request::setMaxReplySize(*this, bytes);
}

qint64 HttpBase2::maxReplySize() const
{
    return Request::maxReplySize(*this);
}

void HttpBase2::setIdleTimeout(int ms)
{
    Request::setIdleTimeout(*this, ms);
}

int HttpBase2::idleTimeout() const
{
    return Request::idleTimeout(*this);
}

QNetworkRequest HttpBase2::createRequest(CONTENT_TYPE type, HTTP_PROCESS process)
{
    return Request::createRequest(*this, type, process);
}

QNetworkReply* HttpBase2::get()
{
    return Request::get(*this);
}

QNetworkReply* HttpBase2::post()
{
    return Request::post(*this);
}

QNetworkReply* HttpBase2::put(QIODevice* iostream)
{
    return Request::put(*this, iostream);
}

QNetworkReply* HttpBase2::process(HTTP_PROCESS processType, QIODevice* iostream)
{
    return Request::process(*this, processType, iostream);
}

void HttpBase2::finished()
{
    Request::finished(*this, kelo_detail::FinishedReply::Keep);
}
