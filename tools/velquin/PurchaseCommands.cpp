// Products, purchases, restores and the subscriber.
#include "Cli.h"

namespace velquin::cli {

std::vector<Command> purchaseCommands() { return {}; }

}  // namespace velquin::cli
