// Facts about this machine that requests carry. Each call reads the system
// afresh (they are cheap); safe from any thread.
#pragma once

#include <string>

namespace velquin::platform {

// The `machine` field of uname(2), e.g. "x86_64".
std::string hardwareMachine();
// The operating system's version: VERSION_ID of os-release, else the kernel release.
std::string osVersion();
// The current locale as an identifier such as "en_US" (from LC_ALL,
// LC_MESSAGES or LANG; "C"/"POSIX" give "en_US_POSIX").
std::string localeIdentifier();
// Abbreviation of the local time zone now, e.g. "CET".
std::string timeZoneAbbreviation();
// Name of the system time zone, e.g. "Europe/Berlin" ("UTC" when unknown).
std::string timeZoneName();

}  // namespace velquin::platform
