#include "httpbase.h"

// Placeholder bodies: the transport work replaces them.
HttpBase::HttpBase(const QUrl& url, QObject* parent, bool debug) : QObject(parent), url(url), debug(debug) {}
HttpBase::~HttpBase() = default;
void HttpBase::setUrl(const QUrl& newUrl) { if (newUrl.isValid()) url = newUrl; }
void HttpBase::setAgentname(const QString& name) { agentname = name; }
void HttpBase::setUsernamePassword(const QString& user, const QString& pass) { username = user; password = pass; }
void HttpBase::addParameter(const QString& key, const QVariant& value, bool clear) { params.add(key, value, clear); }
void HttpBase::setParameter(const HttpParams& newParams) { params = newParams; }
void HttpBase::cancel() {}
QNetworkRequest HttpBase::createRequest(CONTENT_TYPE, HTTP_PROCESS) { return QNetworkRequest(url); }
QNetworkReply* HttpBase::get() { return nullptr; }
QNetworkReply* HttpBase::post() { return nullptr; }
QNetworkReply* HttpBase::put(QIODevice*) { return nullptr; }
QNetworkReply* HttpBase::process(HTTP_PROCESS, QIODevice*) { return nullptr; }
void HttpBase::finished() {}
