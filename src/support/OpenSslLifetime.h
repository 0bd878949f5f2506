// Keeps OpenSSL's tables alive until the process is gone.
//
// OpenSSL frees its global tables from an atexit handler unless told not to
// before its first use. The SDK's gRPC threads (connecting, TLS handshakes,
// replies) keep running while a host returns from main, and a handshake then
// reads the freed tables and crashes the host. Without the handler the memory
// simply goes with the process.
//
// Thread: any; idempotent.
#pragma once

namespace velquin::support {

// Effective when it runs before the process's first use of OpenSSL: the
// library calls it when it is loaded (a load-time constructor) and again
// before it creates a backend channel. A host that used OpenSSL before
// loading the library has already chosen, and keeps its choice.
void keepOpenSslUntilExit();

}  // namespace velquin::support
