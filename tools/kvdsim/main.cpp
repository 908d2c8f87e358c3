// kvdsim: a simulated Kavelo audit daemon for tests, benchmarks and the demo.
#include "options.h"
#include "server.h"

int main(int argc, char** argv) {
    kvdsim::Options options;
    const int parsed = kvdsim::parseOptions(argc, argv, options);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    return kvdsim::serve(options);
}
