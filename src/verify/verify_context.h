// What the two verification walks share: the shadow database side, the
// report file, the counters and the checks a shadow record gets.
#pragma once

#include "records/policy_record.h"
#include "records/record_reader.h"
#include "support/line_source.h"
#include "support/file_stream.h"

#include <cstdio>

struct VerifyCounts {
    int normal = 0;
    int metach = 0;
    int backup = 0;
    int change = 0;
    int deleted = 0;
    int expire = 0;
    int invalid = 0;
    int unlinked = 0;
    int wrongFlag = 0;
    int validList = 0;
    int unhandled = 0;
    int unsupported = 0;
};

struct VerifyContext {
    const char* shadowFile = nullptr;
    const char* sortDirectory = nullptr;
    const char* sortCommand = nullptr; // KESTREL_SORT_OPTIONS
    bool progressWanted = false;       // QUENBY_PROGRESS, and a terminal
    LineSource shadow;
    LineSource list; // the prep list of the list walk
    StdioFile report;
    RecordReader shadowReader{shadow};
    Record shadowRec;
    bool shadowAtEnd = false;
    bool shadowExamined = false;
    VerifyCounts counts{};
    int reportError = 0; // the error code of the first finding not written

    // Writes one finding to the report file.
    void reportLine(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // The current shadow record's HSM state must be one the server knows.
    void checkHsmState();

    // Reads the shadow database's next record; internal and unsupported
    // records are reported and passed over. The reader's result.
    int readShadow();
};
