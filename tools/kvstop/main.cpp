// kvstop: asks the local Kavelo audit daemon to stop and confirms that it is gone.
//
// Exit status 0: stopped (or no longer answering after the stop request); 1: not
// reachable for the stop request; 2: not root, usage error, failed stop request, or the
// daemon still answers. Every exit happens at the point of decision: the session's
// socket closes with the process.
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "zfw/exception.h"
#include "zfw/logger.h"
#include "zkvfw/lrpc2client.h"

namespace {

// A daemon that still completes the handshake gets this long to answer the ping.
const int32_t kPingTimeout = 60;

}  // namespace

int main(int argc, char** argv) {
    boost::shared_ptr<zfw::Logger> logger = zfw::Logger::get("zkv.cli.kvstop");

    if (geteuid() != 0) {
        std::cerr << "You must be root to stop the Kavelo daemon." << std::endl;
        std::exit(2);
    }
    if (argc > 1) {
        std::cerr << "Usage: " << argv[0] << std::endl;
        std::cerr << "  - Note that you must be root to stop the Kavelo daemon" << std::endl;
        std::exit(2);
    }

    Lrpc2Client client;

    bool refused = false;
    try {
        if (!client.connect(0)) {
            std::cerr << "Kavelo daemon does not appear to be running or reachable." << std::endl;
            std::exit(1);
        }
        client.stopDaemon();
        client.disconnect();
    } catch (const ZFWException& e) {
        std::cerr << "Unable to stop Kavelo daemon: \"" << e.what() << "\"" << std::endl;
        if (logger->isEnabled(zfw::Logger::ERROR)) {
            logger->log(zfw::Logger::ERROR, "Unable to stop Kavelo daemon: %s", e.what());
        }
        refused = true;
    }
    // Exits once the handler has released the exception, which would otherwise outlive exit.
    if (refused) {
        std::exit(2);
    }

    sleep(1);

    // Whatever fails from here on means that the daemon is gone.
    try {
        if (client.connect(0) && client.ping(kPingTimeout)) {
            std::exit(2);
        }
    } catch (const ZFWException&) {
    }

    std::cout << "Zantor Kavelo daemon stopped successfully." << std::endl;
    if (logger->isEnabled(zfw::Logger::INFO)) {
        logger->log(zfw::Logger::INFO, "Zantor Kavelo daemon stopped successfully.");
    }
    std::exit(0);
}
