#include "platform/Keychain.h"

#include "velquin/Bundle.h"

namespace velquin::platform {

Keychain& Keychain::standard() {
  static Keychain* keychain =  // lives for the process
      new FileKeychain(Bundle::main().dataDirectory() / "keychain.plist");
  return *keychain;
}

}  // namespace velquin::platform
