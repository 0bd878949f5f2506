// The seam through which the core shows pages: a GTK host installs one
// through libvelquin-gtk (velquin::gtk::install()); a headless host has
// none, and the paywall then answers (false, "paywall show failed").
//
// Ownership and threads: installed with Velquin::setPagePresenter and held
// by the core for the process. Every call comes on the main queue.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "velquin/Export.h"

namespace velquin {

class VELQUIN_EXPORT PagePresenter {
 public:
  virtual ~PagePresenter() = default;
  using PaywallCompletion = std::function<void(bool shown, std::optional<std::string> message)>;
  // Shows the paywall page, waiting a bounded time for an active host
  // window when there is none; false when it cannot show pages at all. When
  // it returns true the completion is called later exactly once, on the main
  // queue: (true, none) once the page is on screen, (false, reason) when no
  // window came.
  virtual bool presentPaywall(const std::string& html, PaywallCompletion completion) = 0;
  // Shows an in-app message page, waiting the same bounded time for an
  // active host window; false when it cannot show pages at all.
  virtual bool presentInAppMessage(const std::string& html) = 0;
};

}  // namespace velquin
