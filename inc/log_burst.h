// Lines of many records in one write.
//
// A push has a line for each record. Opening, writing and closing the daily log for it costs more
// than the record itself, so the lines of the records that one read or one send handles are written
// together, in one write to standard output and one to the daily log:
//
//   const LogBurst burst;
//   for (...) { log_record(msg::RECORD_SENT, key, value); ... }
//   end_log_burst();  // the records are about to leave the machine
//
// Every line is there, with the stamp of its own moment and in the order of its thread's messages.
// The lines in hand are written
// - before any other message of the thread,
// - before a line that comes 50 ms after the first of them, that would make them more than 64 KiB,
//   or that belongs in another day's file,
// - by end_log_burst(), by the end of the LogBurst, and by close_logs().
// A kill loses the lines in hand, and nothing else. So end the burst before its records leave the
// machine, before their stamp is stored, and before work that may take its time.
#pragma once

#include <chrono>
#include <mutex>
#include <string>

#include "log.h"

// While it exists, log_record() of its thread collects lines. A thread has one at a time.
class LogBurst {
public:
    LogBurst();
    LogBurst(const LogBurst&) = delete;
    LogBurst& operator=(const LogBurst&) = delete;
    ~LogBurst();

    // For the log itself: the one of this thread, or null; takes one more line; writes the lines in
    // hand (any thread). errno is kept.
    static LogBurst* of_this_thread();
    void add(int level, const char* message);
    void write();

private:
    void write_held();

    std::mutex lock_;  // guards all below: another thread may end the process
    std::string lines_;
    std::string file_name_;
    std::chrono::steady_clock::time_point begun_;
};

// Unchecked; for log_record only.
void log_record_arguments(const Message* message, ...);

// As log_message, for a message of which there is one for each record. Without a LogBurst of this
// thread it is log_message.
template <typename... Arguments>
void log_record(std::type_identity_t<MessageFor<Arguments...>> message, Arguments... arguments) {
    log_record_arguments(&message.get(), arguments...);
}

// Writes the lines that the burst of this thread has in hand, if there are any. errno is kept.
void end_log_burst();

// The same for the bursts of all threads. Any thread; for close_logs().
void end_all_log_bursts();
