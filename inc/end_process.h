// The one way in which the daemon ends itself.
#pragma once

inline constexpr int EXIT_NO_SETUP = 1;      // what the daemon needs cannot be had
inline constexpr int EXIT_UNREACHABLE = 11;  // a slave to which nobody can connect

// Ends the process at once with `status`, from any thread, with all logs written out. Static
// destructors do not run: other threads may still use what they would destroy.
[[noreturn]] void end_process(int status);
