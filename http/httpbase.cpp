#include "httpbase.h"

#include "httprequest_p.h"

// HttpBase schedules its finished reply for deletion; everything else is shared with its twin
// class.
using Request = kelo_detail::HttpRequest<HttpBase>;

HttpBase::HttpBase(const QUrl& url, QObject* parent, bool debug)
    : QObject(parent), url(url), debug(debug)
{
    kelo_compat::manualRedirects(manager);
}

HttpBase::~HttpBase()
{
    Request::destroy(*this);
}

void HttpBase::setUrl(const QUrl& newUrl)
{
    if (newUrl.isValid())
        url = newUrl;
}

void HttpBase::setAgentname(const QString& name)
{
    agentname = name;
}

void HttpBase::setUsernamePassword(const QString& user, const QString& pass)
{
    username = user;
    password = pass;
}

void HttpBase::addParameter(const QString& key, const QVariant& value, bool clear)
{
    if (clear)
        params.clear();
    params.add(key, value, false);
}

void HttpBase::setParameter(const HttpParams& newParams)
{
    params = newParams;
}

void HttpBase::cancel()
{
    Request::cancel(*this);
}

void HttpBase::setMaxReplySize(qint64 bytes)
{
    Request::setMaxReplySize(*this, bytes);
}

qint64 HttpBase::maxReplySize() const
{
    return Request::maxReplySize(*this);
}

void HttpBase::setIdleTimeout(int ms)
{
    Request::setIdleTimeout(*this, ms);
}

int HttpBase::idleTimeout() const
{
    return Request::idleTimeout(*this);
}

QNetworkRequest HttpBase::createRequest(CONTENT_TYPE type, HTTP_PROCESS process)
{
    return Request::createRequest(*this, type, process);
}

QNetworkReply* HttpBase::get()
{
    return Request::get(*this);
}

QNetworkReply* HttpBase::post()
{
    return Request::post(*this);
}

QNetworkReply* HttpBase::put(QIODevice* iostream)
{
    return Request::put(*this, iostream);
}

QNetworkReply* HttpBase::process(HTTP_PROCESS processType, QIODevice* iostream)
{
    return Request::process(*this, processType, iostream);
}

void HttpBase::finished()
{
    Request::finished(*this, kelo_detail::FinishedReply::DeleteLater);
}
