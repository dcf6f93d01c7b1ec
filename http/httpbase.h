#pragma once

/// @file
/// HttpBase, one asynchronous HTTP exchange, and the request enums HTTP_PROCESS and
/// CONTENT_TYPE.

#include "httpparams.h"
#include "kelo_export.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QUrl>
#include <QVariant>

class QIODevice;

namespace kelo_detail {
template <class Owner> struct HttpRequest; // the shared implementation (private)
}

/// HTTP method of a request object's process() call.
enum HTTP_PROCESS
{
    HTTP_GET = 0,  ///< parameters go into the URL query
    HTTP_POST = 1, ///< parameters go into a form-encoded body
    HTTP_PUT = 2   ///< body streamed from a QIODevice; parameters in the URL query
};

/// "Content-Type" header set by createRequest().
enum CONTENT_TYPE
{
    CONTENT_NONE = 0, ///< no Content-Type header
    CONTENT_FORM = 1, ///< "application/x-www-form-urlencoded"
    CONTENT_JSON = 2  ///< "application/json"
};

/**
 * @brief One asynchronous HTTP exchange.
 *
 * Construct it, set the URL and parameters, connect done() and error(), then call process().
 * Every started request ends in exactly one of done() (the raw body as a QByteArray inside the
 * QVariant) or error() (the QNetworkReply::NetworkError value and Qt's error text). An error
 * status arrives as error(), e.g. 203 for a 404 answer. Two answers are refused rather than
 * delivered: a redirect (3xx, never followed) ends in error(10, "server answered HTTP 302 (a
 * redirect), which is not followed"), and an answer longer than maxReplySize() is aborted as soon
 * as that shows and ends in error(299, "reply larger than the limit of 8388608 bytes"). The object
 * never deletes itself; its owner releases it with deleteLater() from the done/error handlers.
 * TLS uses Qt's default configuration; nothing is relaxed.
 */
class KELO_EXPORT HttpBase : public QObject
{
    Q_OBJECT
public:
    /// @p url is copied as given; @p debug enables the "http2 url:" and "respone data:" lines.
    HttpBase(const QUrl& url, QObject* parent, bool debug);
    /// Deletes the last recorded reply, if any.
    ~HttpBase() override;

    /// Replaces the URL if @p url is valid; an invalid URL is ignored.
    void setUrl(const QUrl& url);
    /// Value of the "User-Agent" header; empty sends none of this object's making.
    void setAgentname(const QString& name);
    /// Credentials put into the URL, only when both are non-empty.
    void setUsernamePassword(const QString& user, const QString& password);
    /// Appends a parameter; @p clear empties the list first.
    void addParameter(const QString& key, const QVariant& value, bool clear);
    /// Replaces the whole parameter list.
    void setParameter(const HttpParams& params);
    /// Aborts the request in flight (it then ends in error(5, ...)); no-op before process().
    void cancel();
    /// Caps the answer's body: a longer answer is aborted and ends in error(299, ...), never in
    /// done(). 0 or less removes the cap; the default is 8 MiB. Applies to process() calls
    /// made afterwards.
    void setMaxReplySize(qint64 bytes);
    /// The cap on the answer's body; 0 means none.
    qint64 maxReplySize() const;
    /// Gives a request up when it moves no byte either way for @p ms milliseconds (connecting
    /// included): it then ends in error(4, "no answer from the server for 20 s"), once, never in
    /// done(). 0 or less: never. The default is 20000, so that no request waits on a dead link
    /// for TCP's minutes of retries. Applies to process() calls made afterwards.
    void setIdleTimeout(int ms);
    /// Milliseconds without a byte before a request is given up; 0 means never.
    int idleTimeout() const;

    /// Builds the network request (credentials, GET query, User-Agent, Content-Type).
    QNetworkRequest createRequest(CONTENT_TYPE type, HTTP_PROCESS process);
    /// Sends a GET; does not record or connect the reply.
    QNetworkReply* get();
    /// Sends a form POST; does not record or connect the reply.
    QNetworkReply* post();
    /// Sends a PUT streamed from @p iostream; null @p iostream sends nothing and returns null.
    QNetworkReply* put(QIODevice* iostream);

Q_SIGNALS:
    /// The request succeeded; @p outputObject holds the raw body as a QByteArray.
    void done(const QVariant& outputObject);
    /// The request failed; @p errorCode is a QNetworkReply::NetworkError value.
    void error(const int& errorCode, const QString& errorMessage);

public Q_SLOTS:
    /// Starts the request; returns the reply, or null for an unknown @p processType.
    QNetworkReply* process(HTTP_PROCESS processType = HTTP_GET, QIODevice* iostream = nullptr);
    /// Handles the end of the reply recorded last; emits done() or error().
    void finished();

private:
    template <class Owner> friend struct kelo_detail::HttpRequest;

    QNetworkAccessManager manager;
    QUrl url;
    HttpParams params;
    QString agentname;
    QString username;
    QString password;
    QNetworkReply* reply = nullptr;
    bool debug;
};
