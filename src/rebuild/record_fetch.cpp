#include "rebuild/record_fetch.h"

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

void RecordFetch::follow(const char* indexPath)
{
    if (map_ != nullptr)
        copier_.start(indexPath, map_, size_);
}

int RecordFetch::close()
{
    copier_.stop();
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
            return take(line_, offset, span, rec);
        offset += static_cast<offset_t>(span);
    }
}

int RecordFetch::recordOf(uint64_t lineNumber, offset_t offset, Record& rec, bool& eof)
{
    size_t span = 0;
    char* line = map_ != nullptr ? copier_.take(lineNumber, offset, span) : nullptr;
    if (line == nullptr || isShadowHeaderLine(line))
        return recordAt(offset, rec, eof);
    eof = false;
    return take(line, offset, span, rec);
}

// As the reader takes a line: the same views and the same messages.
int RecordFetch::take(char* line, offset_t offset, size_t span, Record& rec)
{
    rec.line = line;
    rec.length = textLength(line, span);
    rec.offset = offset;
    while (span + 1 > lineBufferSize_)
        lineBufferSize_ *= 2;
    return parseRecord(rec, lineBufferSize_, options_, stderr);
}
