// The tool's time limit on the broker itself: the library's calls to the broker have none, and a
// broker that hangs must not hang a script. A method has its own limit, that of ubus_invoke.
#pragma once

namespace bus {

// From now on the program ends after `milliseconds` (0: never), saying so, with the status of a
// time-out. Output that was not flushed is lost. Main thread; uses SIGALRM.
void deadline_set(int milliseconds);

} // namespace bus
