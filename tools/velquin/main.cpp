// velquin: runs the SDK's operations from the command line and prints one
// JSON object as the last line of standard output.
//
//   velquin --bundle DIR [--store-config FILE] [--log] [--timeout SECONDS] COMMAND [ARGS...]
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <iostream>

#include "Cli.h"
#include "PurchaseCommands.h"
#include "velquin/Bundle.h"
#include "velquin/OVAnalytics.h"
#include "velquin/Velquin.h"

namespace {

using velquin::cli::Command;

std::vector<Command> allCommands() {
  std::vector<Command> commands;
  for (auto area :
       {velquin::cli::spineCommands, velquin::cli::eventCommands, velquin::cli::purchaseCommands,
        velquin::cli::notifyCommands, velquin::cli::crashCommands}) {
    auto more = area();
    commands.insert(commands.end(), more.begin(), more.end());
  }
  return commands;
}

void printUsage(std::FILE* out, const std::vector<Command>& commands) {
  std::fprintf(out,
               "usage: velquin --bundle DIR [--store-config FILE] [--log] [--timeout SECONDS]\n"
               "               COMMAND [ARGS...]\n\n"
               "  --bundle DIR      folder with velquin-app-token.plist and Info.plist\n"
               "                    (default: the folder of this program)\n"
               "  --store-config FILE  the local store's configuration (default: the\n"
               "                    bundle's store-config.json, else the demo products)\n"
               "  --log             print the SDK's log lines before the result\n"
               "  --timeout SECONDS longest wait for one backend answer (default 70)\n\n"
               "commands:\n");
  for (const auto& command : commands) {
    std::fprintf(out, "  %s %s\n      %s\n", command.name.c_str(), command.usage.c_str(),
                 command.summary.c_str());
  }
}

// Set once the SDK exists: a clean exit then checkpoints the event cache.
bool sdkStarted = false;

[[noreturn]] void finish(const nlohmann::json& result, int status) {
  std::cout << result.dump() << std::endl;
  std::fflush(nullptr);
  // Rows still in the cache's write-ahead log go into the database file, so
  // the file alone holds them (a damaged log then loses nothing).
  if (sdkStarted) velquin::Velquin::shared().analytics().checkpointEventCache();
  // Backend calls started by start-up may still be in flight; nothing of
  // ours is left unwritten (user defaults and the event cache write
  // synchronously, the cache was checkpointed above), so leave without
  // running static destructors under them.
  _exit(status);
}

// Start-up without a usable token file sends to the built-in gateway with an
// empty key: say so before anything is sent.
void reportTokenFileProblem() {
  namespace fs = std::filesystem;
  const fs::path file = velquin::Bundle::main().path() / "velquin-app-token.plist";
  std::error_code ec;
  const auto status = fs::status(file, ec);
  std::string problem;
  if (!fs::exists(status)) {
    problem = "there is no token file " + file.string();
  } else if (!fs::is_regular_file(status)) {
    problem = "the token file " + file.string() + " is not a regular file";
  } else if (::access(file.c_str(), R_OK) != 0) {
    problem = "the token file " + file.string() + " cannot be read";
  }
  if (!problem.empty()) {
    std::fprintf(stderr, "velquin: %s; start-up uses the built-in gateway and no app key\n",
                 problem.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  auto commands = allCommands();
  std::vector<std::string> words(argv + 1, argv + argc);
  velquin::cli::Context context;
  bool log = false;
  std::optional<std::string> storeConfig;
  size_t i = 0;
  for (; i < words.size() && (words[i].rfind("--", 0) == 0 || words[i] == "-h"); ++i) {
    if (velquin::cli::isHelpWord(words[i])) {
      printUsage(stdout, commands);
      return 0;
    } else if (words[i] == "--log") {
      log = true;
    } else if (words[i] == "--store-config" && i + 1 < words.size()) {
      storeConfig = words[++i];
    } else if ((words[i] == "--bundle" || words[i] == "--timeout") && i + 1 < words.size()) {
      if (words[i] == "--bundle") {
        velquin::Bundle::setMainBundlePath(words[i + 1]);
      } else {
        auto seconds = velquin::cli::parseSeconds(words[i + 1]);
        if (!seconds) {
          finish(velquin::cli::errorJson(
                     {"velquin-cli", 2, "--timeout needs seconds from 0 to 86400"}),
                 2);
        }
        context.timeout = std::chrono::milliseconds(static_cast<long long>(*seconds * 1000));
      }
      ++i;
    } else {
      printUsage(stderr, commands);
      finish(velquin::cli::errorJson({"velquin-cli", 2, "bad option " + words[i]}), 2);
    }
  }
  if (i >= words.size()) {
    printUsage(stderr, commands);
    finish(velquin::cli::errorJson({"velquin-cli", 2, "no command"}), 2);
  }
  const std::string name = words[i];
  std::vector<std::string> rest(words.begin() + static_cast<long>(i) + 1, words.end());
  for (const auto& command : commands) {
    if (command.name != name) continue;
    for (const auto& word : rest) {
      if (velquin::cli::isHelpWord(word)) {
        std::printf("usage: velquin [OPTIONS] %s %s\n  %s\n", command.name.c_str(),
                    command.usage.c_str(), command.summary.c_str());
        return 0;
      }
    }
    // The store is picked before the SDK exists: the SDK observes it from
    // its first moment.
    if (auto problem = velquin::cli::useStoreConfiguration(storeConfig)) {
      finish(velquin::cli::errorJson(*problem), 1);
    }
    // Switched on before the SDK exists so start-up's own lines show too.
    velquin::Velquin::setPurchasesLogs(log);
    auto& sdk = velquin::Velquin::shared();
    sdkStarted = true;
    sdk.setAnalyticsLogs(!log);  // the delivery switch is stored inverted
    if (command.needsConfigure || command.name == "configure") reportTokenFileProblem();
    if (command.needsConfigure) sdk.configure();
    velquin::cli::Outcome outcome;
    try {
      outcome = command.run(context, rest);
    } catch (const std::exception& error) {
      outcome = velquin::cli::failure(std::string("bad argument: ") + error.what());
    }
    if (outcome.error) finish(velquin::cli::errorJson(*outcome.error), 1);
    finish(outcome.result, 0);
  }
  printUsage(stderr, commands);
  finish(velquin::cli::errorJson({"velquin-cli", 2, "unknown command " + name}), 2);
}
