// Analytics events and the delivery cache.
#include "Cli.h"

namespace velquin::cli {

std::vector<Command> eventCommands() { return {}; }

}  // namespace velquin::cli
