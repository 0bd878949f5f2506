// Random (version 4) UUIDs in their canonical text form, through libuuid.
#pragma once

#include <string>

namespace velquin::support {

enum class UuidCase { upper, lower };
std::string randomUuid(UuidCase letterCase = UuidCase::upper);

}  // namespace velquin::support
