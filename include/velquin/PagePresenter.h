// The page presenter: how the core shows its pages (the paywall, in-app
// messages) on a host's screen. A GTK host installs one through
// libvelquin-gtk (velquin::gtk::install()); a headless host has none, and the
// paywall then answers (false, "paywall show failed").
//
// Ownership and threads: the facade holds the installed presenter for the
// process (Velquin::setPagePresenter). Every call is made on the main queue.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace velquin {
class PagePresenter {   // installed by a GTK host through libvelquin-gtk; all calls on the main queue
 public:
  virtual ~PagePresenter() = default;
  using PaywallCompletion = std::function<void(bool shown, std::optional<std::string> message)>;
  // Shows the paywall page; false when it cannot (no active host window). When it returns true the
  // completion is called later exactly once.
  virtual bool presentPaywall(const std::string& html, PaywallCompletion completion) = 0;
  // Shows an in-app message page; false when no host window is active.
  virtual bool presentInAppMessage(const std::string& html) = 0;
};
}
