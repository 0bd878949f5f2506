// Turns the backend's subscriber replies into the public subscriber model.
//
// Stateless apart from the process's activity flag, which
// subscriberFromReply() alone writes. Any thread.
#pragma once

#include "SubscriberRoot.pb.h"
#include "velquin/Subscriber.h"

namespace velquin {

// The subscriber of a reply. With entitlements, the first one's activity is
// written to the process flag OVUtils::isActive before anything is built;
// without, the empty subscriber, the subscriptions unread and the flag
// untouched.
OVSubscriber subscriberFromReply(const iap::Subscriber& reply);
OVSubscription subscriptionFromReply(const iap::Subscription& reply);

}  // namespace velquin
