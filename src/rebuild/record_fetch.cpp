#include "rebuild/record_fetch.h"

#include "records/scanf_cursor.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/stat.h>

RecordFetch::~RecordFetch()
{
    close();
    std::free(line_);
}

void RecordFetch::map()
{
    close();
    const int fd = fallback_.source().fd();
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0)
        return;
    void* at = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    if (at == MAP_FAILED)
        return;
    map_ = static_cast<const char*>(at);
    size_ = static_cast<size_t>(st.st_size);
}

int RecordFetch::close()
{
    if (map_ == nullptr)
        return 0;
    void* at = const_cast<char*>(map_);
    map_ = nullptr;
    return ::munmap(at, size_);
}

int RecordFetch::recordAt(offset_t offset, Record& rec, bool& eof)
{
    if (map_ == nullptr)
        return fallback_.recordAt(offset, rec, eof);
    eof = false;
    for (;;) {
        if (offset < 0) {
            errno = EINVAL; // what the read at that offset would give
            return RecordReader::kReadFailed;
        }
        const auto at = static_cast<size_t>(offset);
        const void* lf = at < size_ ? std::memchr(map_ + at, '\n', size_ - at) : nullptr;
        if (lf == nullptr) {
            eof = true; // no whole line starts there
            return 0;
        }
        const size_t span = static_cast<size_t>(static_cast<const char*>(lf) - (map_ + at)) + 1;
        if (span + 1 > capacity_) {
            void* grown = sysRealloc(line_, span + 1);
            if (grown == nullptr) {
                errno = ENOMEM;
                return RecordReader::kReadFailed;
            }
            line_ = static_cast<char*>(grown);
            capacity_ = span + 1;
        }
        std::memcpy(line_, map_ + at, span);
        line_[span] = '\0';
        if (!isShadowHeaderLine(line_))
            return take(offset, span, rec);
        offset += static_cast<offset_t>(span);
    }
}

// As the reader takes a line: the same views and the same messages.
int RecordFetch::take(offset_t offset, size_t span, Record& rec)
{
    rec.line = line_;
    rec.length = textLength(line_, span);
    rec.offset = offset;
    while (span + 1 > lineBufferSize_)
        lineBufferSize_ *= 2;
    return parseRecord(rec, lineBufferSize_, options_, stderr);
}

void FetchAhead::follow(const LineSource& walk)
{
    while (open_ && lines_.linesRead() < walk.linesRead() + kDistance) {
        LineView line;
        if (lines_.next(line) <= 0) {
            open_ = false;
            return;
        }
        // The 16 digits of the offset; anything else is no offset to load.
        uint64_t offset = 0;
        size_t i = 0;
        for (int digit; i < 16 && i < line.length
                        && (digit = scanf_detail::digits.value[static_cast<unsigned char>(line.text[i])]) >= 0;
             ++i)
            offset = offset << 4 | static_cast<uint64_t>(digit);
        if (i == 16)
            fetch_.prefetch(static_cast<offset_t>(offset));
    }
}
