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

char* ulineP = nullptr;
char* upathP = nullptr;
char* uattrP = nullptr;
int ulineSize = 0;
int upathSize = 0;
int uattrSize = 0;

namespace {

struct Record {
    offset_t offset = 0;
    size_t len = 0;
    uint64_t ino = 0;
    uint64_t gen = 0;
    int flag = 0;
};

// A few pages: a dense bunch finds dozens of records in one read, and a
// sparse one, whose records lie far apart, pays little more than for its
// own lines.
constexpr size_t kWindowSize = 8 * 1024;

// The window of the file that the live RecordReadWindow reads through.
struct Window {
    int fd = -1;
    char* bytes = nullptr;
    offset_t start = 0;
    size_t len = 0;
} window;

long long linesWritten = 0;

// The whole line at `offset` from the window, filling it there first when
// the line is not in it: 1, or -1 when the read fails. 0 when the line is
// longer than the window, reaches the end of the file or is a header line:
// the plain positioned reads then give the proper answer.
int lineFromWindow(int fd, offset_t offset, Record& rec)
{
    if (window.fd != fd || window.bytes == nullptr)
        return 0;
    for (int pass = 0; pass < 2; ++pass) {
        const offset_t windowEnd = window.start + static_cast<offset_t>(window.len);
        if (offset >= window.start && offset < windowEnd) {
            const char* p = window.bytes + (offset - window.start);
            size_t ready = window.len - static_cast<size_t>(offset - window.start);
            const char* lf = static_cast<const char*>(std::memchr(p, '\n', ready));
            if (lf != nullptr) {
                size_t n = static_cast<size_t>(lf - p) + 1;
                if (n + 1 > static_cast<size_t>(ulineSize))
                    return 0;
                std::memcpy(ulineP, p, n);
                ulineP[n] = '\0';
                if (isShadowHeaderLine(ulineP))
                    return 0;
                rec.len = std::strlen(ulineP);
                rec.offset = offset;
                return 1;
            }
            if (offset == window.start)
                return 0;
        }
        ssize_t got = sysPread(fd, window.bytes, kWindowSize, static_cast<off_t>(offset));
        if (got <= 0) {
            window.len = 0;
            return got < 0 ? -1 : 0;
        }
        window.start = offset;
        window.len = static_cast<size_t>(got);
    }
    return 0;
}

// Keeps the window equal to the file after a rewrite.
void writeIntoWindow(int fd, const Record& rec)
{
    if (window.fd != fd || window.len == 0)
        return;
    offset_t from = rec.offset > window.start ? rec.offset : window.start;
    const offset_t windowEnd = window.start + static_cast<offset_t>(window.len);
    offset_t to = rec.offset + static_cast<offset_t>(rec.len);
    if (to > windowEnd)
        to = windowEnd;
    if (from < to)
        std::memcpy(window.bytes + (from - window.start), ulineP + (from - rec.offset), static_cast<size_t>(to - from));
}

// Reads and parses the record at `offset`; the reader's result, with 0 and
// `eof` at the end of the file.
int readRecordAt(int fd, offset_t offset, Record& rec, bool& eof)
{
    eof = false;
    int fromWindow = lineFromWindow(fd, offset, rec);
    if (fromWindow < 0)
        return -1;
    if (fromWindow == 0) {
        int got = readRecordLineAt(fd, offset, &ulineP, &ulineSize, &rec.len, &rec.offset);
        if (got <= 0) {
            eof = got == 0;
            return got;
        }
    }
    return parsePolicyRecordLine(ulineP, rec.len, ulineSize, &rec.ino, &rec.gen, &upathP, &upathSize, &uattrP,
                                 &uattrSize, nullptr, nullptr, &rec.flag, nullptr);
}

// Rewrites the line in the buffer over itself.
bool writeLineAt(int fd, const Record& rec)
{
    ++linesWritten; // even a failed write may have reached the file
    size_t done = 0;
    while (done < rec.len) {
        ssize_t put = sysPwrite(fd, ulineP + done, rec.len - done, static_cast<off_t>(rec.offset) + static_cast<off_t>(done));
        if (put <= 0)
            return false;
        done += static_cast<size_t>(put);
    }
    writeIntoWindow(fd, rec);
    return true;
}

} // namespace

RecordReadWindow::RecordReadWindow(FILE* shadow)
{
    window = Window{};
    if (shadow == nullptr)
        return;
    window.bytes = static_cast<char*>(std::malloc(kWindowSize));
    if (window.bytes != nullptr)
        window.fd = fileno(shadow);
}

RecordReadWindow::~RecordReadWindow()
{
    std::free(window.bytes);
    window = Window{};
}

long long shadowLinesWritten()
{
    return linesWritten;
}

bool allocUpdateBuffers()
{
    return resizeBuffer(&ulineP, &ulineSize, PDR_LINE_BUF_SIZE) && resizeBuffer(&upathP, &upathSize, PDR_PATH_BUF_SIZE)
           && resizeBuffer(&uattrP, &uattrSize, PDR_SHOW_BUF_SIZE);
}

void freeUpdateBuffers()
{
    for (char** buf : {&ulineP, &upathP, &uattrP}) {
        std::free(*buf);
        *buf = nullptr;
    }
    ulineSize = upathSize = uattrSize = 0;
}

int updateShadowPDR(FILE* shadow, offset_t offset, int newState, uint32_t slot)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:updateShadowPDR()Entry: 0x%llx to [%x]\n", static_cast<unsigned long long>(offset),
                     newState);
    const bool hasSlot = gsiHashP != nullptr && slot < gsiCount;
    const uint32_t mark = hasSlot ? gsiHashP[slot].updateMark : UINT32_MAX;

    // Repeated reports of one file cost nothing.
    if ((newState == PDR_DELETE && mark == GSI_MARK_DELETE) || (newState == PDR_NORMAL && mark == GSI_MARK_NORMAL)
        || (newState == PDR_BACKUP && (mark == GSI_MARK_NONE || mark == GSI_MARK_BACKUP))) {
        if (quenby_debug > 0)
            std::fprintf(stderr, "quenby:updateShadowPDR() no %s update required State:%x  off: 0x%llx update:%x\n",
                         mark == GSI_MARK_DELETE ? "expire" : "backup", newState,
                         static_cast<unsigned long long>(offset), mark);
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
    int uflag = rec.flag;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:updateShadowPDR() ino:0x%llx prev state:%x\n",
                     static_cast<unsigned long long>(rec.ino), uflag);

    // A pair: its first record tells the state of both.
    const bool resolvePair = newState == PDR_NORMAL && uflag == PDR_CHANGE;
    const bool revertPair = newState == PDR_BACKUP && uflag == PDR_DELETE;
    if (resolvePair || revertPair) {
        const int firstState = resolvePair ? PDR_DELETE : PDR_CHANGE;
        const int secondState = resolvePair ? PDR_NORMAL : PDR_BACKUP;
        if (int code = changePDRState(ulineP, firstState)) {
            std::fprintf(stderr, "updateShadowPDR() change state1 failed. ino 0x%llx state %x -> %x code %d\n",
                         static_cast<unsigned long long>(rec.ino), uflag, firstState, code);
            return code;
        }
        if (!writeLineAt(fd, rec)) {
            systemError("updateShadowPDR() fputs1 failed");
            return -1;
        }
        const offset_t secondOffset = rec.offset + static_cast<offset_t>(rec.len);
        if (quenby_debug > 0)
            std::fprintf(stderr, "quenby:updateShadowPDR() update 1 of 2 State:%x -> %x off: 0x%llx\n", uflag,
                         firstState, static_cast<unsigned long long>(secondOffset));
        const uint64_t preino = rec.ino;
        const uint64_t pregen = rec.gen;
        rc = readRecordAt(fd, secondOffset, rec, eof);
        if (rc < 0 || eof) {
            std::fprintf(stderr, "updateShadowPDR() read2 failed code %d\n", rc);
            return rc;
        }
        uflag = rec.flag;
        // A broken pair stops here: the second record is not rewritten.
        quenbyCheck(rec.ino == preino, "uino == preino");
        quenbyCheck(rec.gen == pregen, "ugen == pregen");
        quenbyCheck(newState == PDR_NORMAL ? (uflag == PDR_BACKUP || uflag == PDR_METACH) : (uflag == PDR_NORMAL),
                    "newState == 0x0? ((uflag == 0xb) || (uflag == 0xa)): (uflag == 0x0)");
        quenbyCheck(secondState == newState, "pdr2NewState == newState");
        offset = rec.offset;
    }

    if (uflag == newState) {
        if (quenby_debug > 0)
            std::fprintf(stderr, "quenby:updateShadowPDR() no updated needed for ino:0x%llx states:0x%x -> 0x%x off: 0x%llx\n",
                         static_cast<unsigned long long>(rec.ino), newState, newState,
                         static_cast<unsigned long long>(offset));
        return 0;
    }
    if (newState == PDR_BACKUP)
        std::fprintf(stderr, "quenby:QBS transaction failure. Reverting record [%s]\n", upathP);

    if (int code = changePDRState(ulineP, newState)) {
        std::fprintf(stderr, "updateShadowPDR() change state2 %d -> %d code %d\n", uflag, newState, code);
        return code;
    }
    if (!writeLineAt(fd, rec)) {
        systemError("updateShadowPDR() fputs2 failed");
        return -1;
    }

    int result = 0;
    if (hasSlot) {
        if (newState == PDR_DELETE)
            gsiHashP[slot].updateMark = GSI_MARK_DELETE;
        else if (newState == PDR_NORMAL)
            gsiHashP[slot].updateMark = GSI_MARK_NORMAL;
        else if (newState == PDR_BACKUP)
            gsiHashP[slot].updateMark = GSI_MARK_BACKUP;
        else {
            std::fprintf(stderr, "updateShadowPDR() unexpected state change 0x%x\n", newState);
            result = -1;
        }
    }
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:updateShadowPDR() exit. Updated PDR State:%x -> %x off:0x%llx code:%d\n", uflag,
                     newState, static_cast<unsigned long long>(offset), result);
    return result;
}
