#include "stopsequence.h"

#include <unistd.h>

#include <iostream>

#include "zfw/exception.h"

namespace kvtools {

namespace {

// A daemon that still completes the handshake gets this long to answer the ping.
const int32_t kPingTimeout = 60;

}  // namespace

bool stillAnswers(Lrpc2Client& client) {
    sleep(1);
    // Whatever fails from here on means that the daemon is gone, failures that are not the
    // daemon's included (any ZFWException), as the stop command's rules require. The
    // connection stays open.
    try {
        return client.connect(0) && client.ping(kPingTimeout);
    } catch (const ZFWException&) {
        return false;
    }
}

StopOutcome stopAndConfirm(Lrpc2Client& client, const boost::shared_ptr<zfw::Logger>& logger,
                           std::ostream& out) {
    try {
        if (!client.connect(0)) {
            std::cerr << "Kavelo daemon does not appear to be running or reachable." << std::endl;
            return StopOutcome::NotReachable;
        }
        client.stopDaemon();
        client.disconnect();
    } catch (const ZFWException& e) {
        std::cerr << "Unable to stop Kavelo daemon: \"" << e.what() << "\"" << std::endl;
        if (logger->isEnabled(zfw::Logger::ERROR)) {
            logger->log(zfw::Logger::ERROR, "Unable to stop Kavelo daemon: %s", e.what());
        }
        return StopOutcome::Refused;
    }

    if (stillAnswers(client)) {
        return StopOutcome::StillAnswering;
    }
    out << "Zantor Kavelo daemon stopped successfully." << std::endl;
    if (logger->isEnabled(zfw::Logger::INFO)) {
        logger->log(zfw::Logger::INFO, "Zantor Kavelo daemon stopped successfully.");
    }
    return StopOutcome::Stopped;
}

int exitStatus(StopOutcome outcome) {
    switch (outcome) {
        case StopOutcome::Stopped:
            return 0;
        case StopOutcome::NotReachable:
            return 1;
        default:
            return 2;
    }
}

}  // namespace kvtools
