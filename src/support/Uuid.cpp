#include "support/Uuid.h"

#include <uuid/uuid.h>

namespace velquin::support {

std::string randomUuid(UuidCase letterCase) {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  if (letterCase == UuidCase::upper) {
    uuid_unparse_upper(uuid, text);
  } else {
    uuid_unparse_lower(uuid, text);
  }
  return text;
}

}  // namespace velquin::support
