// The composition root's own entry points (see CompositionRoot.cpp).
#pragma once

namespace velquin {

// Connects the process flags to the objects that follow them (the tag to
// the event headers). Idempotent; any thread.
void wireProcessFlags();

}  // namespace velquin
