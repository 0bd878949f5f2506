#include "platform/Keychain.h"

#include "platform/PropertyList.h"
#include "support/Console.h"

namespace velquin::platform {

FileKeychain::FileKeychain(std::filesystem::path file) : file_(std::move(file)) {}

std::optional<std::string> FileKeychain::load(const std::string& key) {
  support::MutexLock lock(mutex_);
  auto list = PropertyList::load(file_);
  if (!list) return std::nullopt;
  return list->string(key);
}

bool FileKeychain::save(const std::string& key, const std::string& value) {
  support::MutexLock lock(mutex_);
  PropertyList::LoadError error{};
  auto list = PropertyList::load(file_, &error);
  if (!list) {
    if (error != PropertyList::LoadError::missing) {
      support::warn("keychain file " + file_.string() + " is unreadable; it is rewritten");
    }
    list = PropertyList{};
  }
  list->set(key, value);
  std::string why;
  if (!list->saveAtomically(file_, &why)) {  // created 0600
    support::warn("keychain not saved: " + why);
    return false;
  }
  return true;
}

}  // namespace velquin::platform
