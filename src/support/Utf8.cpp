#include "support/Utf8.h"

#include <glib.h>

#include <memory>

namespace velquin::support {

bool isValidUtf8(std::string_view text) {
  return g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr);
}

std::string makeValidUtf8(std::string_view text) {
  if (isValidUtf8(text)) return std::string(text);
  std::unique_ptr<gchar, decltype(&g_free)> valid(
      g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())), &g_free);
  return valid ? std::string(valid.get()) : std::string();
}

}  // namespace velquin::support
