// The three diagnostic channels. Switched once, at load, by the mere presence
// of their environment variables; the values are never parsed, so "", "0" and
// "no" all switch a channel on. Hosts may flip the fields afterwards.

#include "orvane/log_channel.h"

#include <stdlib.h>

#include <iostream>

ovLogChannel verbose;
ovLogChannel warning;
ovLogChannel stale_log;

namespace {

bool isSet(const char* name) { return ::getenv(name) != nullptr; }

struct ChannelSwitches {
    ChannelSwitches() {
        verbose.enabled = isSet("ORVANE_FSLOCK_VERBOSE");
        // Tracing without the survived failures would hide why it went the
        // way it did, so verbose implies warning (WARNING is then not read).
        warning.enabled = verbose.enabled || isSet("ORVANE_FSLOCK_WARNING");
        // Independent of verbose: stale take-overs are logged only on request.
        stale_log.enabled = isSet("ORVANE_FSLOCK_STALE_LOG");
        verbose.stream = &std::cout;
        stale_log.stream = &std::cout;
        warning.stream = &std::cerr;
    }
};

// <iostream> above guarantees cout/cerr are constructed before this runs.
const ChannelSwitches switches;

}  // namespace
