// kvstop: asks the local Kavelo audit daemon to stop and confirms that it is gone.
//
// Exit status 0: stopped (or no longer answering after the stop request); 1: not
// reachable for the stop request; 2: not root, usage error, failed stop request, or the
// daemon still answers. Every exit happens at the point of decision, without disconnecting, as
// the stop command's rules require: the session's socket closes with the process.
#include <unistd.h>

#include <cstdlib>
#include <iostream>

#include "stdfds.h"
#include "stopsequence.h"
#include "zfw/logger.h"
#include "zkvfw/lrpc2client.h"

int main(int argc, char** argv) {
    kvtools::reserveStandardDescriptors();
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
    std::exit(kvtools::exitStatus(kvtools::stopAndConfirm(client, logger, std::cout)));
}
