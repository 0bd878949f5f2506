// A plain model of a captured exception. The capture path keeps its facts in
// the text it stores (see OVUncaughtExceptionHandler), so the model has no
// fields; it exists for hosts and code that pass an exception record around.
//
// Ownership and threads: a value type with no state; any thread.
#pragma once

namespace velquin {

class OVExceptionModel {
 public:
  OVExceptionModel() = default;
};

}  // namespace velquin
