#include "platform/Keychain.h"

#include <memory>

#include "platform/SecretKeychain.h"
#include "velquin/Bundle.h"

namespace velquin::platform {

Keychain& Keychain::standard() {
  static Keychain* keychain = [] {  // lives for the process
    auto file = std::make_unique<FileKeychain>(Bundle::main().dataDirectory() / "keychain.plist");
    // The probe is bounded and never autolaunches a bus, so a headless host
    // without a session bus goes straight to the file.
    if (SecretKeychain::serviceAvailable()) {
      return static_cast<Keychain*>(new SecretKeychain(std::move(file)));
    }
    return static_cast<Keychain*>(file.release());
  }();
  return *keychain;
}

}  // namespace velquin::platform
