// What `status` shows: rows for people whose members make the JSON output
// (docs/status.schema.json).
#pragma once

#include "ctl/rows.h"
#include "ctl/status/host_facts.h"
#include "ctl/status/verdict.h"

Rows report_of(const HostFacts& facts, const Verdict& verdict);
