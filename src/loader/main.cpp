// qirn-fleet-loader: run by rsyslog's omprog on the fleet collector, stores
// every received line in the event store and confirms it once committed.
//
//   qirn-fleet-loader [CONNINFO...]
//
// CONNINFO is a libpq connection string ("dbname=qirn_fleet
// user=qirn_collector"); its words may come as separate arguments, as
// omprog splits its command line at blanks. Without it libpq's environment
// and defaults apply.

#include <csignal>
#include <iostream>
#include <string>

#include "loader/EventStore.h"
#include "loader/OmprogLoader.h"

int main(int argc, char** argv) {
    // rsyslog reads our answers; if it went away, ending is all that is left.
    if (std::signal(SIGPIPE, SIG_DFL) == SIG_ERR) {
        std::cerr << "qirn-fleet-loader: cannot restore the default action of SIGPIPE\n";
    }
    std::ios::sync_with_stdio(false);
    std::string conninfo;
    for (int i = 1; i < argc; ++i) {
        conninfo.append(i > 1 ? " " : "").append(argv[i]);
    }
    EventStore store(conninfo);
    OmprogLoader loader(store, std::cin, std::cout, std::cerr);
    loader.run();
    const OmprogLoader::Counts& counts = loader.counts();
    std::cerr << "qirn-fleet-loader: input ended; stored " << counts.stored << ", duplicates "
              << counts.duplicates << ", unparsed " << counts.unparsed << ", refusals "
              << counts.refusals << std::endl;
    return 0;
}
