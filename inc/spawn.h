// The one way in which the daemon starts other programs.
//
// Whatever is started sees the descriptors 0, 1 and 2 and no other, default signal dispositions and
// an empty signal mask: the rolling log's file and a listener must not live on in a boot service.
// Only the own child is waited for, so threads may start programs at the same time.
#pragma once

// Runs `command` with "/bin/sh -c" and waits for the shell. Returns its wait status, or -1 with
// errno when it could not be started. Any thread; logs nothing.
int run_shell(const char* command);

// A program that detaches itself once it is up, reporting by the exit status of its foreground
// process.
struct ForegroundStart {
    const char* output_path;    // standard output and error go there if it exists, else they stay
    const char* shell_command;  // run in the child just before the program; null for none
    const char* program;        // full path, also its only argument
};

// Starts a program and waits for its foreground process. Returns its wait status; a program that
// could not be executed counts as exit status 0. -1 with errno when there was no fork. Any thread;
// logs nothing.
int run_foreground(const ForegroundStart& start);
