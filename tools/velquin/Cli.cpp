#include "Cli.h"

#include <algorithm>
#include <charconv>
#include <cmath>

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

std::optional<std::uint64_t> parseCount(const std::string& word) {
  if (word.empty() || word.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  return value;
}

std::optional<double> parseSeconds(const std::string& word) {
  // Digits with at most one point: no sign, exponent, "nan" or "inf".
  if (word.empty() || word == "." || word.find_first_not_of("0123456789.") != std::string::npos ||
      std::count(word.begin(), word.end(), '.') > 1) {
    return std::nullopt;
  }
  double value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || !std::isfinite(value)) {
    return std::nullopt;
  }
  // Longer than a day is a mistake, and keeps the milliseconds in range.
  if (value > 86400) return std::nullopt;
  return value;
}

std::optional<std::int64_t> parseInteger(const std::string& word, std::int64_t min,
                                         std::int64_t max) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (word.empty() || error != std::errc() || end != word.data() + word.size()) {
    return std::nullopt;
  }
  if (value < min || value > max) return std::nullopt;
  return value;
}

std::optional<std::string> waitOption(const Arguments& args, double fallback,
                                      std::chrono::milliseconds& wait) {
  double seconds = fallback;
  if (auto word = args.option("--wait")) {
    auto parsed = parseSeconds(*word);
    if (!parsed) return "--wait needs seconds from 0 to 86400, not \"" + *word + "\"";
    seconds = *parsed;
  }
  wait = std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
  return std::nullopt;
}

bool isHelpWord(const std::string& word) { return word == "-h" || word == "--help"; }

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
