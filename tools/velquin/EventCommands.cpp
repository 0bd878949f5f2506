// Analytics events and the delivery cache.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <fstream>
#include <thread>

#include "Cli.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin::cli {
namespace {

using Clock = std::chrono::steady_clock;

// Events go out once start-up has handed the app key to the event client
// (after Init answered); until then they wait in the cache.
bool waitForCredentials(Clock::time_point until) {
  auto& analytics = Velquin::shared().analytics();
  while (!analytics.canSendEvents()) {
    if (Clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::int64_t cachedRows(const std::optional<std::string>& requestId = std::nullopt) {
  return Velquin::shared().analytics().cachedEventCount(requestId);
}

// Polls until `done` or the time runs out; true when done.
template <class Done>
bool waitUntil(Clock::time_point until, Done done) {
  for (;;) {
    if (done()) return true;
    if (Clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// Uploads the cache until it is empty or the time runs out. Rows whose send
// failed without reaching the backend stay cached, so each time the manager
// falls idle the cache is uploaded again (the SDK's own timer would do the
// same every 60 s).
bool drainCache(Clock::time_point until) {
  auto& analytics = Velquin::shared().analytics();
  auto lastUpload = Clock::now();
  for (;;) {
    if (cachedRows() == 0) return true;
    if (Clock::now() >= until) return false;
    if (analytics.isDeliveryIdle() && Clock::now() - lastUpload > std::chrono::milliseconds(500)) {
      analytics.uploadCachedEvents();
      lastUpload = Clock::now();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void progress(std::size_t done, std::size_t total) {
  if (!isatty(STDERR_FILENO) && done != total && done % 500 != 0) return;
  constexpr int width = 30;
  int filled = total ? static_cast<int>(width * done / total) : width;
  std::fprintf(stderr, "\r[%.*s%*s] %zu/%zu", filled, "##############################",
               width - filled, "", done, total);
  if (done == total) std::fputc('\n', stderr);
  std::fflush(stderr);
}

Outcome track(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().empty() || args.positional().size() > 2) {
    return failure("usage: track NAME [PARAMS_JSON] [--wait SECONDS]");
  }
  std::chrono::milliseconds wait{};
  if (auto problem = waitOption(args, 30, wait)) return failure(*problem);
  auto params = nlohmann::json::parse(args.positional().size() == 2 ? args.positional()[1] : "{}",
                                      nullptr, false);
  if (!params.is_object()) return failure("PARAMS_JSON must be a JSON object");
  auto until = Clock::now() + wait;
  waitForCredentials(until);
  // "delivered" only on the backend's acknowledgement of this very event,
  // on any attempt (a success block alone travels with the retries).
  auto acknowledged = std::make_shared<Pending<bool>>();
  auto receipt = Velquin::shared().analytics().recordEvent(
      args.positional()[0], params,
      [acknowledged](const OVEventResponse&) { acknowledged->set(true); });
  if (receipt.refused) return Outcome{{}, receipt.refused};
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
  bool delivered = acknowledged->wait(std::max(left, std::chrono::milliseconds(0))).value_or(false);
  nlohmann::json result{{"requestId", receipt.requestId},
                        {"event", args.positional()[0]},
                        {"delivered", delivered},
                        {"stored", receipt.stored}};
  return Outcome{std::move(result), std::nullopt};
}

Outcome flush(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait"});
  if (args.problem()) return failure(*args.problem());
  if (!args.positional().empty()) return failure("usage: flush [--wait SECONDS]");
  std::chrono::milliseconds wait{};
  if (auto problem = waitOption(args, 60, wait)) return failure(*problem);
  auto until = Clock::now() + wait;
  auto started = Clock::now();
  bool haveKey = waitForCredentials(until);
  if (haveKey) {
    Velquin::shared().analytics().uploadCachedEvents();
    drainCache(until);
  }
  double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  return Outcome{{{"remaining", cachedRows()}, {"credentials", haveKey}, {"seconds", elapsed}},
                 std::nullopt};
}

Outcome trackMany(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait", "--name", "--ack-file"});
  if (args.problem()) return failure(*args.problem());
  if (args.positional().size() != 1) {
    return failure("usage: track-many N [--name NAME] [--wait SECONDS] [--ack-file FILE]");
  }
  const auto count = parseCount(args.positional()[0]);
  if (!count || *count > 10'000'000) {
    return failure("N must be a whole number from 0 to 10000000, not \"" + args.positional()[0] +
                   "\"");
  }
  std::chrono::milliseconds wait{};
  if (auto problem = waitOption(args, 120, wait)) return failure(*problem);
  const std::string name = args.option("--name").value_or("ev_load_test");

  // --ack-file records every sequence number whose call has returned with
  // the event stored, so a test that kills this process knows which events
  // must arrive.
  std::FILE* ack = nullptr;
  if (auto file = args.option("--ack-file")) {
    ack = std::fopen(file->c_str(), "a");
    if (!ack) return failure("can not write the ack file " + *file);
  }
  auto started = Clock::now();
  auto until = started + wait;
  waitForCredentials(until);
  auto& analytics = Velquin::shared().analytics();
  std::size_t notStored = 0;
  std::optional<Error> refused;
  bool ackFailed = false;
  for (std::size_t i = 0; i < *count; ++i) {
    auto receipt = analytics.recordEvent(name, {{"seq", i}});
    if (receipt.refused) {
      refused = receipt.refused;
      break;
    }
    if (!receipt.stored) {
      ++notStored;
    } else if (ack && !ackFailed) {
      ackFailed = std::fprintf(ack, "%zu\n", i) < 0 || std::fflush(ack) != 0;
    }
    progress(i + 1, *count);
  }
  if (ack) ackFailed = std::fclose(ack) != 0 || ackFailed;
  if (refused) return Outcome{{}, refused};
  if (ackFailed) return failure("writing the ack file failed");
  auto stored = Clock::now();
  drainCache(until);
  double total = std::chrono::duration<double>(Clock::now() - started).count();
  double storing = std::chrono::duration<double>(stored - started).count();
  return Outcome{{{"sent", *count},
                  {"notStored", notStored},
                  {"remaining", cachedRows()},
                  {"secondsToStore", storing},
                  {"seconds", total}},
                 std::nullopt};
}

}  // namespace

std::vector<Command> eventCommands() {
  return {
      {"track", "NAME [PARAMS_JSON] [--wait SECONDS]",
       "send one event and wait until the backend took it (default 30 s)", true, track},
      {"flush", "[--wait SECONDS]", "upload what the event cache holds; print what remains", true,
       flush},
      {"track-many", "N [--name NAME] [--wait SECONDS] [--ack-file FILE]",
       "send N events {\"seq\": i} one after another, with progress on stderr", true, trackMany},
  };
}

}  // namespace velquin::cli
