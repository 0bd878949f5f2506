// Line output shared by every part of the library. Lines from different
// threads never interleave.
#pragma once

#include <string_view>

namespace velquin::support {

// One line on standard output (the SDK's log lines and delivery prints).
void printLine(std::string_view line);
// One line on standard error, always printed: problems the host must see
// (corrupt files, unwritable folders), whatever the log switches say.
void warn(std::string_view line);

}  // namespace velquin::support
