// One backup client run: its output read line by line while it runs, each
// reported file's record updated in place.
#pragma once

#include "records/policy_record.h"
#include "support/line_source.h"

#include <cstdio>

class PathIndex;
class RecordUpdater;

// Runs `command` through the shell and monitors its output: each reported
// path is looked up in `index` and its record rewritten by `updater`. Prints
// "::EXECANDMONITOR::<updated>::<failed>::<status>::" last; returns the
// command's wait status, or -1 when it could not be started or the records
// it had rewritten could not be made durable. With `timeoutSeconds` > 0 a
// run that lasts longer is ended, with every process of its group.
int execAndMonitor(const char* command, PathIndex& index, RecordUpdater& updater, FILE* shadow, const char* label,
                   int successState, offset_t firstOffset, offset_t lastOffset, int timeoutSeconds = 0);

// QUENBY_CLIENT_TIMEOUT's `text`: whole seconds > 0, else 0 (no limit).
int clientTimeoutSetting(const char* text);

struct MonitorCounts {
    int updated = 0;
    int failed = 0;
};

// Reads the client's output from `output` to its end, line by line, and
// acts on every recognised line.
void monitorClientOutput(LineSource& output, PathIndex& index, RecordUpdater& updater, FILE* shadow,
                         const char* label, int successState, offset_t firstOffset, offset_t lastOffset,
                         MonitorCounts& counts);
