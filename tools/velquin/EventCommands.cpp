// Analytics events and the delivery cache.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include "Cli.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace velquin::cli {
namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds seconds(const Arguments& args, double fallback) {
  double value = std::stod(args.option("--wait").value_or(std::to_string(fallback)));
  return std::chrono::milliseconds(static_cast<long long>(value * 1000));
}

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
  auto params = nlohmann::json::parse(args.positional().size() == 2 ? args.positional()[1] : "{}",
                                      nullptr, false);
  if (!params.is_object()) return failure("PARAMS_JSON must be a JSON object");
  auto until = Clock::now() + seconds(args, 30);
  waitForCredentials(until);
  std::string id =
      Velquin::shared().analytics().uploadBigDataWithEvent(args.positional()[0], params);
  bool delivered = waitUntil(until, [&] { return cachedRows(id) == 0; });
  return Outcome{{{"requestId", id}, {"event", args.positional()[0]}, {"delivered", delivered}},
                 std::nullopt};
}

Outcome flush(const Context&, const std::vector<std::string>& words) {
  Arguments args(words, {"--wait"});
  if (args.problem()) return failure(*args.problem());
  auto until = Clock::now() + seconds(args, 60);
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
  const std::size_t count = std::stoul(args.positional()[0]);
  const std::string name = args.option("--name").value_or("ev_load_test");
  auto started = Clock::now();
  auto until = started + seconds(args, 120);
  waitForCredentials(until);

  // --ack-file records every sequence number whose call has returned, so a
  // test that kills this process knows which events must arrive.
  std::FILE* ack = nullptr;
  if (auto file = args.option("--ack-file")) ack = std::fopen(file->c_str(), "a");
  auto& analytics = Velquin::shared().analytics();
  for (std::size_t i = 0; i < count; ++i) {
    analytics.uploadBigDataWithEvent(name, {{"seq", i}});
    if (ack) {
      std::fprintf(ack, "%zu\n", i);
      std::fflush(ack);
    }
    progress(i + 1, count);
  }
  if (ack) std::fclose(ack);
  auto stored = Clock::now();
  drainCache(until);
  double total = std::chrono::duration<double>(Clock::now() - started).count();
  double storing = std::chrono::duration<double>(stored - started).count();
  return Outcome{{{"sent", count},
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
