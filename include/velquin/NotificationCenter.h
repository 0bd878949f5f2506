// In-process notification centre: observers keyed by name.
//
// Ownership and threads: defaultCenter() lives for the process. post() calls
// the observers synchronously on the posting thread (never under the
// centre's lock), so observers that touch pages move to the main queue.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

#include "velquin/Export.h"

namespace velquin {

struct VELQUIN_EXPORT Notification {
  std::string name;
  std::any object;
};

class VELQUIN_EXPORT NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  using Token = std::uint64_t;

  static NotificationCenter& defaultCenter();

  Token addObserver(const std::string& name, Observer observer);
  void removeObserver(Token token);
  void post(const std::string& name, std::any object = {});

 private:
  struct Entry {
    std::string name;
    Observer observer;
  };
  std::mutex mutex_;
  std::unordered_map<Token, Entry> observers_;  // guarded by mutex_
  Token next_ = 1;                              // guarded by mutex_
};

}  // namespace velquin
