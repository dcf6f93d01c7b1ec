#pragma once

#include "cloudserver.h"

#include <QString>

namespace kelocloud {

/**
 * The simulator's control routes, served under controlPathPrefix ("/_sim/") on the server's own
 * port: whoever drives a test day (a person with curl, a script, the demo) marks invoices paid,
 * pushes notices and injects faults and outages with plain HTTPS requests.
 *
 * Requests are POSTs with a form-encoded body (GET for "/_sim/state"); answers are JSON,
 * {"ok":true,...} or {"ok":false,"error":"..."} with status 400 (bad parameter), 404 (unknown
 * route, invoice or device) or 405 (wrong method). usage() describes every route.
 *
 * With a required token (kelo-cloud makes one whenever it listens anywhere but loopback), a
 * control request must carry it in the header controlTokenHeader ("X-Kelo-Control-Token");
 * without it, or with another one, the answer is 403 and nothing happens. The API routes and the
 * WebSocket never see this object, so they answer as always.
 *
 * While it exists, the object answers its server's control requests; it must not outlive the
 * server.
 */
class CloudControl
{
public:
    /// The header that carries the control token.
    static constexpr char controlTokenHeader[] = "X-Kelo-Control-Token";

    /// Answers @p server's control requests; an empty @p requiredToken: no token is needed.
    explicit CloudControl(CloudServer& server, const QByteArray& requiredToken = QByteArray());
    ~CloudControl();
    CloudControl(const CloudControl&) = delete;
    CloudControl& operator=(const CloudControl&) = delete;

    /// Answers one control request (the server calls it on its own thread).
    ControlReply handle(const CloudExchange& request);

    /// The routes, one curl example each, for a help text; @p caPath is the CA certificate.
    static QString usage(const QString& caPath);

    /// A fresh token: 32 characters of A-Z a-z 0-9 - _ from the system's random source.
    static QByteArray makeToken();
    /// Why @p token cannot be a control token (16 to 128 of A-Z a-z 0-9 - _), or empty.
    static QString tokenProblem(const QByteArray& token);

private:
    class Form;
    ControlReply invoicePaid(const Form& form);
    ControlReply push(const Form& form);
    ControlReply fault(const Form& form);
    ControlReply pongs(const Form& form);
    ControlReply down(const Form& form);
    ControlReply dropSockets(const Form& form);
    ControlReply summary(const Form& form);

    CloudServer& server;
    const QByteArray requiredToken;
};

} // namespace kelocloud
