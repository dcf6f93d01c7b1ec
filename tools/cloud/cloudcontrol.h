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
 * While it exists, the object answers its server's control requests; it must not outlive the
 * server.
 */
class CloudControl
{
public:
    explicit CloudControl(CloudServer& server);
    ~CloudControl();
    CloudControl(const CloudControl&) = delete;
    CloudControl& operator=(const CloudControl&) = delete;

    /// Answers one control request (the server calls it on its own thread).
    ControlReply handle(const CloudExchange& request);

    /// The routes, one curl example each, for a help text; @p caPath is the CA certificate.
    static QString usage(const QString& caPath);

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
};

} // namespace kelocloud
