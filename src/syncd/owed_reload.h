// The reload that the DHCP wrapper is owed for a copy that is put in place. A file remembers it
// from before the copy is there until the wrapper has been told: whatever ends the process in
// between, the next start as the master tells it.
//
// The file is not flushed. A power failure ends the wrapper, too, and it reads the copies when it
// starts.
#pragma once

// Remembers a reload. Where that cannot be done, it is logged, and only the end of the process in
// the next moment would lose it. Worker thread of the master.
void owe_reload();

// Tells the wrapper by refresh_dhcp() and forgets what was owed. One that does not listen reads the
// copies when it starts. What cannot be forgotten, which is logged, means one more reload at the
// next start. Worker thread of the master.
void pay_reload();

// Makes up for a reload that a former process owed, which is logged. Master, before its worker runs
// a job.
void pay_reload_of_last_run();
