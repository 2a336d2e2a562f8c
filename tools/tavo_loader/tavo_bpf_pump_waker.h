// Wakes both ring pumps after a stop request. The pumps block in an
// untimed poll and only look at the running flag when a record arrives,
// so the daemon makes each ring deliver one real record: a short-lived
// child process exits, which the normal object reports as a process exit,
// and a zero dma-buf total planted for that child in the GPL object's size
// map makes the GPL exit program report the total dropping to 0.
#pragma once

#include <string>

namespace Tavo::Loader {

// Forks, plants the GPL map entry, lets the child exit and reaps it.
// Returns 0, or -1 with errno when the child could not be made.
int WakePumps(const std::string& pinDir);

}  // namespace Tavo::Loader
