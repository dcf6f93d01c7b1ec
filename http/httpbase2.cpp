#include "httpbase2.h"

// Placeholder bodies: the transport work replaces them.
HttpBase2::HttpBase2(const QUrl& url, QObject* parent, bool debug) : QObject(parent), url(url), debug(debug) {}
HttpBase2::~HttpBase2() = default;
void HttpBase2::setUrl(const QUrl& newUrl) { if (newUrl.isValid()) url = newUrl; }
void HttpBase2::setAgentname(const QString& name) { agentname = name; }
void HttpBase2::setUsernamePassword(const QString& user, const QString& pass) { username = user; password = pass; }
void HttpBase2::addParameter(const QString& key, const QVariant& value, bool clear) { params.add(key, value, clear); }
void HttpBase2::setParameter(const HttpParams& newParams) { params = newParams; }
void HttpBase2::cancel() {}
QNetworkRequest HttpBase2::createRequest(CONTENT_TYPE, HTTP_PROCESS) { return QNetworkRequest(url); }
QNetworkReply* HttpBase2::get() { return nullptr; }
QNetworkReply* HttpBase2::post() { return nullptr; }
QNetworkReply* HttpBase2::put(QIODevice*) { return nullptr; }
QNetworkReply* HttpBase2::process(HTTP_PROCESS, QIODevice*) { return nullptr; }
void HttpBase2::finished() {}
