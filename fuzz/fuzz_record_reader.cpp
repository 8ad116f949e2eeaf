// The record reader, the state edit, the work-list builder and the SHOW
// comparison on any input. The first byte picks the mode.
#include "fuzz_util.h"
#include "records/policy_record.h"
#include "records/record_edit.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    clusterMigrationReader = mode & 1;
    FILE* in = fuzz::inputStream(data + 1, size - 1);
    if (in == nullptr)
        return 0;
    PolicyRecord rec;
    // Small buffers first, so that every growth path runs.
    if (rec.line.allocate(2 + (mode >> 4)) && rec.path.allocate(1 + (mode & 7)) && rec.show.allocate(1)) {
        const bool outputs = mode & 2;
        for (int records = 0; records < 64; ++records) {
            int rc = readPolicyRecordLen(in, &rec.line.ptr, &rec.line.size, &rec.ino, &rec.gen, &rec.path.ptr,
                                         &rec.path.size, &rec.show.ptr, &rec.show.size,
                                         outputs ? &rec.filesetName : nullptr, outputs ? &rec.hsmState : nullptr,
                                         &rec.endOfFile, &rec.state, &rec.escapedPath, &rec.lineLength);
            if (rc < 0 || rec.endOfFile)
                break;
            char out[WORK_LINE_BUF_SIZE];
            updatePDRForBackupExpire(out, rec.line.ptr, KEYWORD_UPDATED, static_cast<offset_t>(rec.ino), sizeof out);
            diffShowData(rec.show.ptr, rec.show.ptr, rec.filesetName, rec.filesetName, rec.hsmState, nullptr);
            changePDRState(rec.line.ptr, (mode >> 2) & 0xf);
            if (std::strlen(rec.line.ptr) != rec.lineLength && std::memchr(rec.line.ptr, 0, rec.lineLength) == nullptr)
                __builtin_trap(); // a state edit changed the line's length
        }
    }
    std::fclose(in);
    clusterMigrationReader = false;
    return 0;
}
