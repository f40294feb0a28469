// The one way in which the daemon ends itself.
#pragma once

// Ends the process at once with `status`, from any thread, with all logs written out. Static
// destructors do not run: other threads may still use what they would destroy.
[[noreturn]] void end_process(int status);
