#include "support/OpenSslLifetime.h"

#include <openssl/crypto.h>

namespace velquin::support {

void keepOpenSslUntilExit() {
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

namespace {

// Runs when the library is loaded, before any code of the host calls into it.
[[gnu::constructor]] void keepOpenSslFromLoad() {
  keepOpenSslUntilExit();
}

}  // namespace

}  // namespace velquin::support
