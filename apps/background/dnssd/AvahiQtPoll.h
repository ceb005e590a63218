#pragma once

// Avahi's main-loop abstraction on the Qt event loop: watches are QSocketNotifiers, time-outs
// single-shot QTimers. No threads.

#include <avahi-common/watch.h>

namespace nimbrel::dnssd {

// The AvahiPoll of the current thread's Qt event loop. Lives as long as the program.
const AvahiPoll* qtAvahiPoll();

} // namespace nimbrel::dnssd
