// The sandbox's app configuration: built-in defaults with an optional JSON
// file merged over them (RFC 7386 merge patch: objects merge key by key,
// other values replace, null removes).
//
// Ownership and threads: plain functions; the resulting JSON is a value.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace velquin::sandbox {

// Reads `file` (when given), merges it over defaultConfig() and checks the
// types of every known key. nullopt with a readable message in `error` when
// the file is missing, not JSON, not an object or holds a wrong type.
std::optional<nlohmann::json> loadConfig(const std::optional<std::filesystem::path>& file,
                                         std::string* error);

// Checks the types of the known keys of a merged configuration.
bool validateConfig(const nlohmann::json& config, std::string* error);

}  // namespace velquin::sandbox
