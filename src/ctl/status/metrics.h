// What `status --prometheus` prints: the text exposition format, for node_exporter's textfile
// collector.
#pragma once

#include <string>

#include "ctl/status/host_facts.h"
#include "ctl/status/verdict.h"

std::string metrics_of(const HostFacts& facts, const Verdict& verdict);
