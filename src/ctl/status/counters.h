// The counters of the state page by name, for JSON and metrics.
#pragma once

#include "state_page.h"

struct CounterName {
    const char* name;
    PageNumber PageCounters::*value;
    const char* help;
};

inline constexpr CounterName COUNTERS[] = {
    {"heartbeats_sent", &PageCounters::heartbeats_sent, "Heartbeats that this slave sent."},
    {"heartbeats_answered", &PageCounters::heartbeats_answered,
     "Answers that this slave received."},
    {"heartbeats_missed", &PageCounters::heartbeats_missed,
     "Heartbeat periods of this slave without an answer."},
    {"heartbeats_received", &PageCounters::heartbeats_received,
     "Heartbeats of configured servers that this master received."},
    {"answers", &PageCounters::answers, "Heartbeats that this master answered."},
    {"requests", &PageCounters::requests,
     "Requests for a data set, sent by this slave or received by this master."},
    {"transfers_begun", &PageCounters::transfers_begun,
     "Data sets that this host began to push or to receive."},
    {"transfers_whole", &PageCounters::transfers_whole,
     "Data sets that this host pushed or received whole."},
    {"transfers_broken", &PageCounters::transfers_broken,
     "Data sets whose push or reception broke off."},
    {"records_sent", &PageCounters::records_sent, "Records that this master sent."},
    {"records_stored", &PageCounters::records_stored, "Records that this slave stored."},
    {"records_failed", &PageCounters::records_failed, "Records that could not be sent or stored."},
    {"fetches_whole", &PageCounters::fetches_whole,
     "Settings of other servers that this master fetched."},
    {"fetches_failed", &PageCounters::fetches_failed,
     "Fetches of another server's settings that failed."},
    {"strangers_datagrams", &PageCounters::strangers_datagrams,
     "Datagrams from addresses that are not in server_list."},
    {"take_overs", &PageCounters::take_overs, "Times that this slave took over."},
    {"step_downs", &PageCounters::step_downs, "Times that this slave stepped down again."},
    {"log_lines_lost", &PageCounters::log_lines_lost,
     "Log lines that could not be written to the daily file."},
};

inline constexpr const char* LOG_LEVEL_NAMES[PAGE_LOG_LEVELS] = {"debug", "info", "error", "fatal"};
