// A notification server that D-Bus starts on demand: it takes
// org.freedesktop.Notifications on the bus that started it and clicks each
// notification once it has been shown, as a user would. It ends when the
// bus goes away.
#include <chrono>
#include <cstdlib>

#include "NotificationServer.h"

int main() {
  const char* address = std::getenv("DBUS_STARTER_ADDRESS");
  if (!address) address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  if (!address) return 2;
  velquin::testing::NotificationServer server(address);
  if (!server.ok()) return 1;
  std::size_t clicked = 0;
  while (!server.closed()) {
    if (!server.waitForCalls(clicked + 1, std::chrono::seconds(60))) continue;
    auto call = server.calls().at(clicked);
    // The caller has the answer before the click, as with a person clicking.
    server.roundTrip(call.sender);
    server.invokeAction(call.id);
    ++clicked;
  }
  return 0;
}
