// What to look at before and after an operator changes something.
#pragma once

#include <string_view>
#include <vector>

#include "proc_info.h"

// Whether the daemon of this host would be, or is, the slave of its pair.
bool is_slave_by_forecast();

// Whether boot services that run here before its daemon starts are those of a take-over: it is the
// slave, or its address in the pair is missing and its daemon has ended in the place of the master.
bool has_left_over_services();

// Whether it is the slave, and its daemon runs and has not taken the boot services over.
bool stands_by_a_living_master();

// Waits a little until a process of that name runs, or until none does; whether it came to that.
// Those of `dying` were told to end and count as gone.
bool comes_to_run(std::string_view name, bool running, const std::vector<ProcessInfo>& dying = {});
