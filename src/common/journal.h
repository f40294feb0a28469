// The system's journal, which gets each line with its level as the priority.
//
// Of a line on standard output the journal takes the priority from a prefix in the line, and these
// lines are fixed. So the unit names the journal's own socket in the environment and leads standard
// output nowhere; standard output has the same lines all the time. Records of a push do not go
// there: they are in the daily file.
#pragma once

#include <string_view>

inline constexpr const char* JOURNAL_VARIABLE = "QUORSYNCD_JOURNAL";  // the path of its socket

// Sends the line, if there is a journal, without ever waiting: one that does not read loses it, but
// an ERROR or FATAL line that it did not take goes to standard error.
// DEBUG, INFO and ERROR become debug, info and err, FATAL becomes crit. Any thread; errno is not
// kept.
void send_to_journal(int level, std::string_view line);
