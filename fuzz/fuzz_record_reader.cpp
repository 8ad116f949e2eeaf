// The record reader, the state edit, the work-list builder and the SHOW
// comparison on any input. The first byte picks the mode.
#include "fuzz_util.h"
#include "records/record_edit.h"
#include "records/record_reader.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    // Small blocks and pieces first, so that every growth path runs.
    fuzz::PieceReader input{data + 1, size - 1, 1u + (mode >> 4u)};
    LineSource source({.blockSize = 2 + (mode & 7u)});
    source.attachReader(&fuzz::PieceReader::read, &input);
    RecordReader reader(source, {.classify = (mode & 2) != 0, .clusterMigration = (mode & 1) != 0});
    Record rec;
    for (int records = 0; records < 64; ++records) {
        int rc = reader.next(rec);
        if (rc < 0 || reader.atEnd())
            break;
        char out[WORK_LINE_BUF_SIZE];
        updatePDRForBackupExpire(out, rec.line, KEYWORD_UPDATED, static_cast<offset_t>(rec.ino), sizeof out);
        diffShowData(rec.show, rec.show, rec.fileset, rec.fileset, rec.hsmState, {});
        changePDRState(rec.line, (mode >> 2) & 0xf);
        if (std::strlen(rec.line) != rec.length)
            __builtin_trap(); // a state edit changed the line's length
    }
    return 0;
}
