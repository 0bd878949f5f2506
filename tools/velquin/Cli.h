// Shared pieces of the command-line host: argument access, waiting for a
// completion with a time limit, and the one-JSON-object result.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velquin/Error.h"
#include "velquin/Models.h"

namespace velquin::cli {

// What a command hands back: a JSON object, or an error.
struct Outcome {
  nlohmann::json result = nlohmann::json::object();
  std::optional<Error> error;
};

inline Outcome failure(std::string message, std::int64_t code = 1,
                       std::string domain = "velquin-cli") {
  return Outcome{{}, Error{std::move(domain), code, std::move(message)}};
}

// The words after the command name, with --flag VALUE options pulled out.
class Arguments {
 public:
  Arguments(std::vector<std::string> words, const std::vector<std::string>& flagsWithValue,
            const std::vector<std::string>& switches = {});
  const std::vector<std::string>& positional() const { return positional_; }
  std::optional<std::string> option(const std::string& flag) const;
  bool has(const std::string& flag) const;
  // Set when a word was an unknown flag or a flag lacked its value.
  const std::optional<std::string>& problem() const { return problem_; }

 private:
  std::vector<std::string> positional_;
  std::map<std::string, std::string> options_;
  std::optional<std::string> problem_;
};

// A one-shot result that a completion fills from any thread.
template <class T>
class Pending {
 public:
  void set(T value) {
    std::lock_guard lock(mutex_);
    if (value_) return;  // only the first report counts
    value_ = std::move(value);
    ready_.notify_all();
  }
  // Waits at most `limit`; absent when the time ran out.
  std::optional<T> wait(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    ready_.wait_for(lock, limit, [&] { return value_.has_value(); });
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::optional<T> value_;  // guarded by mutex_
};

struct Context {
  std::chrono::milliseconds timeout{70000};  // --timeout: longest wait for one answer
};

using Handler = std::function<Outcome(const Context&, const std::vector<std::string>& words)>;

struct Command {
  std::string name;
  std::string usage;  // arguments after the name
  std::string summary;
  bool needsConfigure = true;  // runs start-up first, as an app does at launch
  Handler run;
};

// Commands by area; main.cpp collects them.
std::vector<Command> spineCommands();
std::vector<Command> eventCommands();
std::vector<Command> purchaseCommands();
std::vector<Command> notifyCommands();
std::vector<Command> crashCommands();

// Strict numbers: the whole word must be the number, nothing before or
// after it. A count is decimal digits only (no sign); seconds are a finite,
// non-negative decimal; an integer is decimal with an optional '-' and must
// lie in [min, max].
std::optional<std::uint64_t> parseCount(const std::string& word);
std::optional<double> parseSeconds(const std::string& word);
std::optional<std::int64_t> parseInteger(const std::string& word, std::int64_t min,
                                         std::int64_t max);
// The --wait option in milliseconds (`fallback` seconds when absent); an
// error text when it is not valid seconds.
std::optional<std::string> waitOption(const class Arguments& args, double fallback,
                                      std::chrono::milliseconds& wait);
// True for "-h" and "--help".
bool isHelpWord(const std::string& word);

Outcome timedOut(const std::string& what);
nlohmann::json errorJson(const Error& error);
// A protobuf message as JSON with its schema's field names.
// The attribution answer under the backend's field names.
nlohmann::json attributionJson(const OVAttribution& reply);

}  // namespace velquin::cli
