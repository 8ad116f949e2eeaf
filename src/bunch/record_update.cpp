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
#include <sys/mman.h>
#include <unistd.h>

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

size_t pageSize()
{
    long bytes = sysconf(_SC_PAGESIZE);
    return bytes > 0 ? static_cast<size_t>(bytes) : 4096;
}

} // namespace

ShadowMapping::ShadowMapping(size_t residentBytes, offset_t first, offset_t last)
    : residentBytes_(residentBytes), pageBytes_(pageSize()), first_(first), last_(last)
{
}

// Maps the slice, with `offset` in it: 1, 0 when `offset` is at or past
// the end of the file, -1 (errno) when the file cannot be mapped.
int ShadowMapping::map(int fd, offset_t offset)
{
    struct stat st {};
    if (sysFstat(fd, &st) != 0)
        return -1;
    const auto size = static_cast<offset_t>(st.st_size);
    if (offset >= size)
        return 0;
    const offset_t from = first_ > 0 && first_ < offset ? first_ : offset;
    const offset_t upTo = last_ > offset ? last_ : offset;
    const offset_t to = last_ == 0 || size - upTo <= static_cast<offset_t>(tailBytes_)
                            ? size
                            : upTo + static_cast<offset_t>(tailBytes_);
    // What was stored goes to the file before the pages are let go of.
    if (syncStored() != 0 && pendingFailure_ == 0)
        pendingFailure_ = errno;
    if (base_ != nullptr)
        sysMunmap(base_, length_);
    base_ = nullptr;
    fd_ = fd;
    start_ = from - static_cast<offset_t>(static_cast<uint64_t>(from) % pageBytes_);
    const auto length = static_cast<size_t>(to - start_);
    void* at = sysMmap(length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(start_));
    if (at == MAP_FAILED)
        return -1;
    base_ = static_cast<char*>(at);
    length_ = length;
    toEnd_ = to == size;
    releasedTo_ = 0;
    return 1;
}

// Lets go of the pages more than residentBytes_ behind `at`, each time the
// records have gone that far again; their stores stay in the page cache.
void ShadowMapping::release(size_t at)
{
    if (at < releasedTo_ + 2 * residentBytes_)
        return;
    size_t to = at - residentBytes_;
    to -= to % pageBytes_;
    sysMadvise(base_ + releasedTo_, to - releasedTo_, MADV_DONTNEED);
    releasedTo_ = to;
}

int ShadowMapping::lineAt(int fd, offset_t offset, char*& line, size_t& span)
{
    for (bool mapped = false;; mapped = true) {
        if (base_ != nullptr && fd == fd_ && offset >= start_ && offset - start_ < static_cast<offset_t>(length_)) {
            const size_t at = static_cast<size_t>(offset - start_);
            const void* lf = std::memchr(base_ + at, '\n', length_ - at);
            if (lf != nullptr) {
                line = base_ + at;
                span = static_cast<size_t>(static_cast<const char*>(lf) - line) + 1;
                release(at);
                return 1;
            }
        }
        // Mapped afresh to the end of the file: no whole line. A line past
        // the slice's end is mapped with more of what follows.
        if (mapped && toEnd_)
            return 0;
        if (mapped)
            tailBytes_ *= 2;
        if (int rc = map(fd, offset); rc <= 0)
            return rc;
    }
}

void ShadowMapping::store(offset_t offset, const char* text, size_t n)
{
    quenbyCheck(base_ != nullptr && offset >= start_
                    && offset - start_ + static_cast<offset_t>(n) <= static_cast<offset_t>(length_),
                "stored line in the mapping");
    char* to = base_ + (offset - start_);
    for (size_t i = 0; i < n; ++i) {
        if (to[i] == text[i])
            continue;
        to[i] = text[i];
        const size_t at = static_cast<size_t>(to + i - base_);
        dirtyFrom_ = at < dirtyFrom_ ? at : dirtyFrom_;
        dirtyTo_ = at + 1 > dirtyTo_ ? at + 1 : dirtyTo_;
    }
}

int ShadowMapping::syncStored()
{
    int rc = 0;
    if (dirtyFrom_ < dirtyTo_) {
        const size_t from = dirtyFrom_ - dirtyFrom_ % pageBytes_;
        rc = sysMsync(base_ + from, dirtyTo_ - from, MS_SYNC);
    }
    dirtyFrom_ = SIZE_MAX;
    dirtyTo_ = 0;
    return rc;
}

int ShadowMapping::flush()
{
    int rc = syncStored();
    if (rc == 0 && pendingFailure_ != 0) {
        errno = pendingFailure_;
        rc = -1;
    }
    pendingFailure_ = 0;
    return rc;
}

int ShadowMapping::close()
{
    int rc = syncStored();
    // The next flush reports a failed sync too: the updater closes its
    // mapping between reports.
    if (rc != 0 && pendingFailure_ == 0)
        pendingFailure_ = errno;
    int err = errno;
    if (base_ != nullptr && sysMunmap(base_, length_) != 0 && rc == 0) {
        rc = -1;
        err = errno;
    }
    base_ = nullptr;
    length_ = 0;
    fd_ = -1;
    errno = err;
    return rc;
}

RecordUpdater::RecordUpdater(bool oldFormatExpiry, WriteOptions write)
    : oldFormatExpiry_(oldFormatExpiry), positioned_(write.positioned),
      mapped_(write.residentBytes, write.sliceFirst, write.sliceLast)
{
}

RecordUpdater::~RecordUpdater()
{
    mapped_.close();
    std::free(lineCopy_);
}

int RecordUpdater::makeDurable(int fd)
{
    int rc = mapped_.flush();
    int err = errno;
    if (positionedWrites_ && sysFdatasync(fd) != 0 && rc == 0) {
        rc = -1;
        err = errno;
    }
    positionedWrites_ = false;
    errno = err;
    return rc;
}

// The record at `offset` read from the mapping, as the reader reads it:
// the reader's result; kNoLine when no whole line is left, kReadFailed
// when the file cannot be mapped.
int RecordUpdater::mappedRecordAt(int fd, offset_t offset, Record& rec)
{
    for (;;) {
        char* line = nullptr;
        size_t span = 0;
        int got = mapped_.lineAt(fd, offset, line, span);
        if (got <= 0)
            return got == 0 ? kNoLine : RecordReader::kReadFailed;
        if (span + 1 > lineCopySize_) {
            void* grown = sysRealloc(lineCopy_, span + 1);
            if (grown == nullptr)
                return -1;
            lineCopy_ = static_cast<char*>(grown);
            lineCopySize_ = span + 1;
        }
        std::memcpy(lineCopy_, line, span);
        lineCopy_[span] = '\0';
        if (!isShadowHeaderLine(lineCopy_)) {
            rec.line = lineCopy_;
            rec.length = textLength(lineCopy_, span);
            rec.offset = offset;
            while (span + 1 > lineBufferSize_)
                lineBufferSize_ *= 2;
            return parseRecord(rec, lineBufferSize_, {.classify = false}, stderr);
        }
        offset += static_cast<offset_t>(span);
    }
}

// Reads and parses the record at `offset`; the reader's result, with 0 and
// `eof` at the end of the file.
int RecordUpdater::readRecordAt(int fd, offset_t offset, Record& rec, bool& eof)
{
    if (!positioned_) {
        int rc = mappedRecordAt(fd, offset, rec);
        if (rc != kNoLine && rc != RecordReader::kReadFailed) {
            eof = false;
            return rc;
        }
        // Without a line the reader answers: its read tells the end of the
        // file from an offset that no read can reach.
        if (rc == RecordReader::kReadFailed) {
            if (quenby_debug > 0)
                std::fprintf(stderr, "quenby: shadow database not mapped (error=%d), rewriting with pwrite\n",
                             portableErrnoNonZero());
            positioned_ = true;
        }
    }
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
    if (!positioned_) {
        mapped_.store(rec.offset, rec.line, rec.length);
        return true;
    }
    positionedWrites_ = true;
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
    // Outside a read window the mapping goes with the report, as a read
    // window's bytes do: the same descriptor may be another file next time.
    struct Unmap {
        RecordUpdater& updater;
        ~Unmap()
        {
            if (!updater.windowed_)
                updater.mapped_.close();
        }
    } unmap{*this};
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
