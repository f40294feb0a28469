// The reload of the DHCP wrapper that follows a copy put in place. A file notes it from before the
// copy is there until the wrapper has been told: whatever ends the process in between, the next
// start as the master tells it.
//
// The file is not flushed. A power failure ends the wrapper, too, and it reads the copies when it
// starts.
#pragma once

// Notes that a reload is due. Where that cannot be done, it is logged, and only the end of the
// process in the next moment would lose it. Worker thread of the master.
void note_reload();

// Tells the wrapper by refresh_dhcp() and removes the note. A wrapper that does not listen reads
// the copies when it starts. A note that cannot be removed, which is logged, means one more reload
// at the next start. Worker thread of the master.
void reload_as_noted();

// Makes up for a reload that a former process noted and did not come to, which is logged. Master,
// before its worker runs a job.
void reload_for_last_run();
