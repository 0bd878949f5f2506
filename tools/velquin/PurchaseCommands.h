// The store the command-line host sells from.
#pragma once

#include <optional>
#include <string>

#include "velquin/Error.h"

namespace velquin::cli {

// Picks the local store's configuration before the SDK exists: `file` when
// given (--store-config), else the bundle's store-config.json, else a
// built-in configuration with the sandbox's demo products (written to the
// application's data folder). Returns an error only when the built-in one
// cannot be written.
std::optional<Error> useStoreConfiguration(const std::optional<std::string>& file);

// The built-in configuration as JSON text.
const char* defaultStoreConfiguration();

}  // namespace velquin::cli
