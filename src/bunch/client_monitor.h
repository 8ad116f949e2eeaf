// One backup client run: its output read line by line while it runs, each
// reported file's record updated in place.
#pragma once

#include "records/policy_record.h"

#include <cstdio>

// Runs `command` through the shell and monitors its output. Prints
// "::EXECANDMONITOR::<updated>::<failed>::<status>::" last; returns the
// command's wait status, or -1 when it could not be started.
int execAndMonitor(const char* command, FILE* shadow, const char* label, int successState, offset_t firstOffset,
                   offset_t lastOffset);
