#include "Cli.h"

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

bool Arguments::has(const std::string& flag) const {
  return options_.count(flag) > 0;
}

Outcome timedOut(const std::string& what) {
  return failure(what + " did not answer in time", 2);
}

nlohmann::json errorJson(const Error& error) {
  return {{"error", {{"domain", error.domain}, {"code", error.code}, {"message", error.message}}}};
}

nlohmann::json attributionJson(const OVAttribution& reply) {
  return {{"app_id", reply.appId},
          {"advertiser_id", reply.advertiserId},
          {"app_user_id", reply.appUserId},
          {"attribution_source", reply.attributionSource},
          {"acquisition_source", reply.acquisitionSource},
          {"acquisition_campaign", reply.acquisitionCampaign},
          {"acquisition_lander", reply.acquisitionLander},
          {"acquisition_country", reply.acquisitionCountry},
          {"acquisition_var1", reply.acquisitionVar1},
          {"acquisition_var2", reply.acquisitionVar2},
          {"acquisition_var3", reply.acquisitionVar3},
          {"ad_event_id", reply.adEventId},
          {"tracker_id", reply.trackerId},
          // 64-bit numbers as text, as the backend's JSON mapping writes them.
          {"click_time", std::to_string(reply.clickTime)}};
}

}  // namespace velquin::cli
