// The stop-and-confirm sequence shared by kvstop and kvctl.
#ifndef KVTOOLS_STOPSEQUENCE_H
#define KVTOOLS_STOPSEQUENCE_H

#include <boost/shared_ptr.hpp>

#include <ostream>

#include "zfw/logger.h"
#include "zkvfw/lrpc2client.h"

namespace kvtools {

enum class StopOutcome {
    Stopped,         // the daemon no longer answers a second after the stop request
    NotReachable,    // no connection for the stop request
    Refused,         // the stop request failed
    StillAnswering,  // a ping a second later was answered
};

// Connects `client`, sends the stop request, waits a second and pings. Writes kvstop's lines:
// "Zantor Kavelo daemon stopped successfully." on `out`, the not-reachable and
// refusal lines on standard error, and the success or refusal record to `logger`. Nothing is
// written for StillAnswering (the stop command's rules: the exit status tells). The session stays
// connected in that case.
StopOutcome stopAndConfirm(Lrpc2Client& client, const boost::shared_ptr<zfw::Logger>& logger,
                           std::ostream& out);

// The confirmation phase: a second after the stop request, does the daemon still answer a
// ping? The session must be disconnected; it stays connected when the answer is yes.
bool stillAnswers(Lrpc2Client& client);

// The exit status of an outcome: 0 stopped, 1 not reachable, 2 otherwise.
int exitStatus(StopOutcome outcome);

}  // namespace kvtools

#endif
