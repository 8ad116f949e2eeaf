#include "bunch/record_update.h"

#include "bunch/path_index.h"
#include "records/record_at.h"
#include "records/record_edit.h"
#include "support/consistency.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

struct RecordUpdater::Record {
    offset_t offset = 0;
    size_t len = 0;
    uint64_t ino = 0;
    uint64_t gen = 0;
    int flag = 0;
};

namespace {

// A few pages: a dense bunch finds dozens of records in one read, and a
// sparse one, whose records lie far apart, pays little more than for its
// own lines.
constexpr size_t kWindowSize = 8 * 1024;

// Repeated reports of one file cost nothing.
bool alreadyDone(int newState, uint32_t mark)
{
    return (newState == PDR_DELETE && mark == MARK_DELETE) || (newState == PDR_NORMAL && mark == MARK_NORMAL)
           || (newState == PDR_BACKUP && (mark == MARK_NONE || mark == MARK_BACKUP));
}

// Remembers the state a path's record was given: 0, or -1 for a state no
// report gives.
int markDone(uint32_t& mark, int newState)
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

RecordUpdater::~RecordUpdater()
{
    for (char* buf : {line_, path_, show_, window_.bytes})
        std::free(buf);
}

bool RecordUpdater::allocate()
{
    return resizeBuffer(&line_, &lineSize_, PDR_LINE_BUF_SIZE) && resizeBuffer(&path_, &pathSize_, PDR_PATH_BUF_SIZE)
           && resizeBuffer(&show_, &showSize_, PDR_SHOW_BUF_SIZE);
}

// The whole line at `offset` from the window, filling it there first when
// the line is not in it: 1, or -1 when the read fails. 0 when the line is
// longer than the window, reaches the end of the file or is a header line:
// the plain positioned reads then give the proper answer.
int RecordUpdater::lineFromWindow(int fd, offset_t offset, Record& rec)
{
    if (window_.fd != fd || window_.bytes == nullptr)
        return 0;
    for (int pass = 0; pass < 2; ++pass) {
        const offset_t windowEnd = window_.start + static_cast<offset_t>(window_.len);
        if (offset >= window_.start && offset < windowEnd) {
            const char* p = window_.bytes + (offset - window_.start);
            size_t ready = window_.len - static_cast<size_t>(offset - window_.start);
            const char* lf = static_cast<const char*>(std::memchr(p, '\n', ready));
            if (lf != nullptr) {
                size_t n = static_cast<size_t>(lf - p) + 1;
                if (n + 1 > static_cast<size_t>(lineSize_))
                    return 0;
                std::memcpy(line_, p, n);
                line_[n] = '\0';
                if (isShadowHeaderLine(line_))
                    return 0;
                rec.len = std::strlen(line_);
                rec.offset = offset;
                return 1;
            }
            if (offset == window_.start)
                return 0;
        }
        ssize_t got = sysPread(fd, window_.bytes, kWindowSize, static_cast<off_t>(offset));
        if (got <= 0) {
            window_.len = 0;
            return got < 0 ? -1 : 0;
        }
        window_.start = offset;
        window_.len = static_cast<size_t>(got);
    }
    return 0;
}

// Keeps the window equal to the file after a rewrite.
void RecordUpdater::writeIntoWindow(int fd, const Record& rec)
{
    if (window_.fd != fd || window_.len == 0)
        return;
    offset_t from = rec.offset > window_.start ? rec.offset : window_.start;
    const offset_t windowEnd = window_.start + static_cast<offset_t>(window_.len);
    offset_t to = rec.offset + static_cast<offset_t>(rec.len);
    if (to > windowEnd)
        to = windowEnd;
    if (from < to)
        std::memcpy(window_.bytes + (from - window_.start), line_ + (from - rec.offset),
                    static_cast<size_t>(to - from));
}

// Reads and parses the record at `offset`; the reader's result, with 0 and
// `eof` at the end of the file.
int RecordUpdater::readRecordAt(int fd, offset_t offset, Record& rec, bool& eof)
{
    eof = false;
    int fromWindow = lineFromWindow(fd, offset, rec);
    if (fromWindow < 0)
        return -1;
    if (fromWindow == 0) {
        int got = readRecordLineAt(fd, offset, &line_, &lineSize_, &rec.len, &rec.offset);
        if (got <= 0) {
            eof = got == 0;
            return got;
        }
    }
    return parsePolicyRecordLine(line_, rec.len, lineSize_, &rec.ino, &rec.gen, &path_, &pathSize_, &show_,
                                 &showSize_, nullptr, nullptr, &rec.flag, nullptr);
}

// Rewrites the line in the buffer over itself.
bool RecordUpdater::writeLineAt(int fd, const Record& rec)
{
    ++linesWritten_; // even a failed write may have reached the file
    size_t done = 0;
    while (done < rec.len) {
        ssize_t put =
            sysPwrite(fd, line_ + done, rec.len - done, static_cast<off_t>(rec.offset) + static_cast<off_t>(done));
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    writeIntoWindow(fd, rec);
    return true;
}

// A pair's first record tells the state of both: rewrites it and reads the
// second into `rec`. 1 to go on with the second, else the result.
int RecordUpdater::readSecondOfPair(int fd, int newState, Record& rec)
{
    const int firstState = newState == PDR_NORMAL ? PDR_DELETE : PDR_CHANGE;
    const int secondState = newState == PDR_NORMAL ? PDR_NORMAL : PDR_BACKUP;
    const int flag = rec.flag;
    if (int code = changePDRState(line_, firstState)) {
        std::fprintf(stderr, "updateShadowPDR() change state1 failed. ino 0x%llx state %x -> %x code %d\n",
                     static_cast<unsigned long long>(rec.ino), flag, firstState, code);
        return code;
    }
    if (!writeLineAt(fd, rec)) {
        systemError("updateShadowPDR() fputs1 failed");
        return -1;
    }
    const offset_t secondOffset = rec.offset + static_cast<offset_t>(rec.len);
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
    quenbyCheck(newState == PDR_NORMAL ? (rec.flag == PDR_BACKUP || rec.flag == PDR_METACH) : (rec.flag == PDR_NORMAL),
                "newState == 0x0? ((uflag == 0xb) || (uflag == 0xa)): (uflag == 0x0)");
    quenbyCheck(secondState == newState, "pdr2NewState == newState");
    return 1;
}

// Gives the record in the buffer its new state in the file: 0, or the
// failing step's code.
int RecordUpdater::rewrite(int fd, int newState, Record& rec)
{
    if (newState == PDR_BACKUP)
        std::fprintf(stderr, "quenby:QBS transaction failure. Reverting record [%s]\n", path_);
    if (int code = changePDRState(line_, newState)) {
        std::fprintf(stderr, "updateShadowPDR() change state2 %d -> %d code %d\n", rec.flag, newState, code);
        return code;
    }
    if (!writeLineAt(fd, rec)) {
        systemError("updateShadowPDR() fputs2 failed");
        return -1;
    }
    return 0;
}

int RecordUpdater::update(FILE* shadow, offset_t offset, int newState, uint32_t* mark)
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
                     static_cast<unsigned long long>(rec.ino), rec.flag);
    if ((newState == PDR_NORMAL && rec.flag == PDR_CHANGE) || (newState == PDR_BACKUP && rec.flag == PDR_DELETE)) {
        if ((rc = readSecondOfPair(fd, newState, rec)) != 1)
            return rc;
        offset = rec.offset;
    }
    const int flag = rec.flag;
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

RecordReadWindow::RecordReadWindow(RecordUpdater& updater, FILE* shadow) : updater_(updater)
{
    std::free(updater_.window_.bytes);
    updater_.window_ = RecordUpdater::Window{};
    if (shadow == nullptr)
        return;
    updater_.window_.bytes = static_cast<char*>(std::malloc(kWindowSize));
    if (updater_.window_.bytes != nullptr)
        updater_.window_.fd = fileno(shadow);
}

RecordReadWindow::~RecordReadWindow()
{
    std::free(updater_.window_.bytes);
    updater_.window_ = RecordUpdater::Window{};
}
