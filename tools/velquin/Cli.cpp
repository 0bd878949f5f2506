#include "Cli.h"

#include <google/protobuf/util/json_util.h>

#include <algorithm>

namespace velquin::cli {

Arguments::Arguments(std::vector<std::string> words, const std::vector<std::string>& flagsWithValue,
                     const std::vector<std::string>& switches) {
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word.rfind("--", 0) != 0 || word == "--") {
      positional_.push_back(word);
      continue;
    }
    if (std::find(switches.begin(), switches.end(), word) != switches.end()) {
      options_[word] = "";
    } else if (std::find(flagsWithValue.begin(), flagsWithValue.end(), word) !=
               flagsWithValue.end()) {
      if (i + 1 >= words.size()) {
        problem_ = word + " needs a value";
        return;
      }
      options_[word] = words[++i];
    } else {
      problem_ = "unknown option " + word;
      return;
    }
  }
}

std::optional<std::string> Arguments::option(const std::string& flag) const {
  auto it = options_.find(flag);
  if (it == options_.end()) return std::nullopt;
  return it->second;
}

bool Arguments::has(const std::string& flag) const { return options_.count(flag) > 0; }

Outcome timedOut(const std::string& what) {
  return failure(what + " did not answer in time", 2);
}

nlohmann::json errorJson(const Error& error) {
  return {{"error", {{"domain", error.domain}, {"code", error.code}, {"message", error.message}}}};
}

nlohmann::json messageJson(const google::protobuf::Message& message) {
  std::string text;
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  if (!google::protobuf::util::MessageToJsonString(message, &text, options).ok()) {
    return nlohmann::json::object();
  }
  return nlohmann::json::parse(text, nullptr, false);
}

}  // namespace velquin::cli
