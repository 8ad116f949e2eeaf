#include "bunch/record_update.h"

#include "bunch/path_index.h"
#include "records/record_edit.h"
#include "support/consistency.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {


// Repeated reports of one file cost nothing.
bool alreadyDone(int newState, uint32_t mark)
{
    return (newState == PDR_DELETE && mark == MARK_DELETE) || (newState == PDR_NORMAL && mark == MARK_NORMAL)
           || (newState == PDR_BACKUP && (mark == MARK_NONE || mark == MARK_BACKUP));
}

// Remembers the state a path's record was given: 0, or -1 for a state no
// report gives.
int markDone(UpdateMark& mark, int newState)
{
    if (newState == PDR_DELETE)
        mark = MARK_DELETE;
    else if (newState == PDR_NORMAL)
        mark = MARK_NORMAL;
    else if (newState == PDR_BACKUP)
        mark = MARK_BACKUP;
    else {
        std::fprintf(stderr, "updateShadowPDR() unexpected state change 0x%x\n", newState);
        return -1;
    }
    return 0;
}

} // namespace

// Reads and parses the record at `offset`; the reader's result, with 0 and
// `eof` at the end of the file.
int RecordUpdater::readRecordAt(int fd, offset_t offset, Record& rec, bool& eof)
{
    if (shadowAt_.fd() != fd)
        shadowAt_.attach(fd);
    // Outside a read window every record is read from the file.
    if (!windowed_)
        shadowAt_.forget();
    int rc = reader_.recordAt(offset, rec, eof);
    return rc == RecordReader::kReadFailed ? -1 : rc;
}

// Rewrites the line in the buffer over itself.
bool RecordUpdater::writeLineAt(int fd, const Record& rec)
{
    ++linesWritten_; // even a failed write may have reached the file
    size_t done = 0;
    while (done < rec.length) {
        ssize_t put = sysPwrite(fd, rec.line + done, rec.length - done,
                                static_cast<off_t>(rec.offset) + static_cast<off_t>(done));
        if (put <= 0) {
            // The edit is in the window but maybe not in the file.
            shadowAt_.forget();
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

// A pair's first record tells the state of both: rewrites it and reads the
// second into `rec`. 1 to go on with the second, else the result.
int RecordUpdater::readSecondOfPair(int fd, int newState, Record& rec)
{
    const int firstState = newState == PDR_NORMAL ? PDR_DELETE : PDR_CHANGE;
    const int secondState = newState == PDR_NORMAL ? PDR_NORMAL : PDR_BACKUP;
    const int flag = rec.state;
    if (int code = changePDRState(rec.line, firstState)) {
        std::fprintf(stderr, "updateShadowPDR() change state1 failed. ino 0x%llx state %x -> %x code %d\n",
                     static_cast<unsigned long long>(rec.ino), flag, firstState, code);
        return code;
    }
    if (!writeLineAt(fd, rec)) {
        systemError("updateShadowPDR() fputs1 failed");
        return -1;
    }
    const offset_t secondOffset = rec.offset + static_cast<offset_t>(rec.length);
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:updateShadowPDR() update 1 of 2 State:%x -> %x off: 0x%llx\n", flag, firstState,
                     static_cast<unsigned long long>(secondOffset));
    const uint64_t firstIno = rec.ino;
    const uint64_t firstGen = rec.gen;
    bool eof = false;
    int rc = readRecordAt(fd, secondOffset, rec, eof);
    if (rc < 0 || eof) {
        std::fprintf(stderr, "updateShadowPDR() read2 failed code %d\n", rc);
        return rc;
    }
    // A broken pair stops here: the second record is not rewritten.
    quenbyCheck(rec.ino == firstIno, "uino == preino");
    quenbyCheck(rec.gen == firstGen, "ugen == pregen");
    quenbyCheck(newState == PDR_NORMAL ? (rec.state == PDR_BACKUP || rec.state == PDR_METACH) : (rec.state == PDR_NORMAL),
                "newState == 0x0? ((uflag == 0xb) || (uflag == 0xa)): (uflag == 0x0)");
    quenbyCheck(secondState == newState, "pdr2NewState == newState");
    return 1;
}

// Gives the record in the buffer its new state in the file: 0, or the
// failing step's code.
int RecordUpdater::rewrite(int fd, int newState, Record& rec)
{
    if (newState == PDR_BACKUP)
        std::fprintf(stderr, "quenby:QBS transaction failure. Reverting record [%.*s]\n", VIEW_ARGS(rec.path));
    if (int code = changePDRState(rec.line, newState)) {
        std::fprintf(stderr, "updateShadowPDR() change state2 %d -> %d code %d\n", rec.state, newState, code);
        return code;
    }
    if (!writeLineAt(fd, rec)) {
        systemError("updateShadowPDR() fputs2 failed");
        return -1;
    }
    return 0;
}

int RecordUpdater::update(FILE* shadow, offset_t offset, int newState, UpdateMark* mark)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:updateShadowPDR()Entry: 0x%llx to [%x]\n", static_cast<unsigned long long>(offset),
                     newState);
    const uint32_t was = mark != nullptr ? *mark : UINT32_MAX;
    if (alreadyDone(newState, was)) {
        if (quenby_debug > 0)
            std::fprintf(stderr, "quenby:updateShadowPDR() no %s update required State:%x  off: 0x%llx update:%x\n",
                         was == MARK_DELETE ? "expire" : "backup", newState, static_cast<unsigned long long>(offset),
                         was);
        return 0;
    }
    const int fd = fileno(shadow);
    if (offset < 0) {
        errno = EINVAL;
        systemError("quenby:updateShadowPDR() seek1 failed");
        return -1;
    }
    Record rec;
    bool eof = false;
    int rc = readRecordAt(fd, offset, rec, eof);
    if (rc < 0 || eof) {
        std::fprintf(stderr, "updateShadowPDR() read2 failed code %d\n", rc);
        return rc;
    }
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:updateShadowPDR() ino:0x%llx prev state:%x\n",
                     static_cast<unsigned long long>(rec.ino), rec.state);
    if ((newState == PDR_NORMAL && rec.state == PDR_CHANGE) || (newState == PDR_BACKUP && rec.state == PDR_DELETE)) {
        if ((rc = readSecondOfPair(fd, newState, rec)) != 1)
            return rc;
        offset = rec.offset;
    }
    const int flag = rec.state;
    if (flag == newState) {
        if (quenby_debug > 0)
            std::fprintf(stderr, "quenby:updateShadowPDR() no updated needed for ino:0x%llx states:0x%x -> 0x%x off: 0x%llx\n",
                         static_cast<unsigned long long>(rec.ino), newState, newState,
                         static_cast<unsigned long long>(offset));
        return 0;
    }
    if (int code = rewrite(fd, newState, rec))
        return code;

    const int result = mark != nullptr ? markDone(*mark, newState) : 0;
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:updateShadowPDR() exit. Updated PDR State:%x -> %x off:0x%llx code:%d\n", flag,
                     newState, static_cast<unsigned long long>(offset), result);
    return result;
}

RecordReadWindow::RecordReadWindow(RecordUpdater& updater) : updater_(updater)
{
    updater_.shadowAt_.forget();
    updater_.windowed_ = true;
}

RecordReadWindow::~RecordReadWindow()
{
    updater_.shadowAt_.forget();
    updater_.windowed_ = false;
}
