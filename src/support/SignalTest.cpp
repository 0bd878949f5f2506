#include "velquin/SignalTest.h"

#include <cstdlib>

namespace velquin {
namespace {
// Static storage: an address that is valid to name but that no allocator
// handed out.
char notFromTheHeap[32];
}  // namespace

void SignalTest::signalTest() {
  // Read through volatile pointers, so the compiler can neither see what is
  // freed nor drop the store to address 1.
  char* volatile invalid = notFromTheHeap + 1;
  std::free(invalid);
  volatile int* volatile addressOne = reinterpret_cast<volatile int*>(1);
  *addressOne = 1;
  std::abort();
}

}  // namespace velquin
