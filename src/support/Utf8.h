// UTF-8 checks for text that goes into JSON and protocol-buffer messages,
// which carry UTF-8 only. Thin names over GLib's validator. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace velquin::support {

bool isValidUtf8(std::string_view text);
// The text with every byte sequence that is not valid UTF-8 replaced by
// U+FFFD.
std::string makeValidUtf8(std::string_view text);

}  // namespace velquin::support
