#include "velquin/NotificationCenter.h"

#include <algorithm>
#include <vector>

namespace velquin {

NotificationCenter& NotificationCenter::defaultCenter() {
  static NotificationCenter* center = new NotificationCenter();  // lives for the process
  return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(const std::string& name,
                                                          Observer observer) {
  std::lock_guard lock(mutex_);
  Token token = next_++;
  observers_.emplace(token, Entry{name, std::move(observer)});
  return token;
}

void NotificationCenter::removeObserver(Token token) {
  std::lock_guard lock(mutex_);
  observers_.erase(token);
}

void NotificationCenter::post(const std::string& name, std::any object) {
  std::vector<std::pair<Token, Observer>> matching;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [token, entry] : observers_) {
      if (entry.name == name) matching.emplace_back(token, entry.observer);
    }
  }
  // Observers run in registration order, outside the lock, so they may add or
  // remove observers themselves.
  std::sort(matching.begin(), matching.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  Notification note{name, std::move(object)};
  for (const auto& [token, observer] : matching) observer(note);
}

}  // namespace velquin
