#include "records/record_edit.h"

#include "support/debug_level.h"
#include "support/sys_call.h"

#include <cstddef>
#include <cstring>

namespace {

const char* orNull(const char* text)
{
    return text != nullptr ? text : "(null)";
}

// Builds and writes one work-list line; `tag` names the writer in its message.
int writeWorkLine(const char* line, const char* path, FILE* out, const char* keyword, offset_t offset,
                  char tag)
{
    char built[WORK_LINE_BUF_SIZE];
    built[0] = '\0';
    int rc = -1;
    if (keyword != nullptr) {
        rc = updatePDRForBackupExpire(built, line, keyword, offset, sizeof built);
        if (rc == 1) {
            size_t len = std::strlen(built);
            if (out != nullptr && sysFwrite(built, len, out) == len)
                return 0;
            rc = -1;
        }
    }
    if (tag == 'b')
        std::fprintf(stderr, "quenby: failed to update PDR(b): [%s] [%s] [%s] 0x%llx %d\n", line,
                     orNull(path), built, static_cast<unsigned long long>(offset), rc);
    else
        std::fprintf(stderr, "quenby: failed to update PDR(e): %s %s %s %llx\n", line, orNull(path),
                     built, static_cast<unsigned long long>(offset));
    return -1;
}

} // namespace

int changePDRState(char* line, int state)
{
    if (state != 0 && (state < 0xa || state > 0xf))
        return 1;
    char* bang = std::strchr(line, '!');
    if (bang == nullptr)
        return 2;
    // Back over the path length to the ":" that ends the flag field, then
    // to the ":" before the field.
    ptrdiff_t end = bang - line;
    while (end > 0 && line[end] != ':')
        --end;
    if (line[end] != ':')
        return 2;
    ptrdiff_t start = end - 1;
    while (start >= 0 && line[start] != ':')
        --start;
    if (start < 0 || end - start < 2)
        return 2;
    for (ptrdiff_t i = start + 1; i < end - 1; ++i)
        line[i] = '0';
    line[end - 1] = "0123456789abcdef"[state];
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:changePDRState(%x) exit 0 PDR:\n%s", state, line);
    return 0;
}

int updatePDRForBackupExpire(char* out, const char* line, const char* keyword, offset_t offset,
                             size_t outSize)
{
    const char* semi = std::strrchr(line, ';');
    if (semi == nullptr)
        return -1;
    size_t prefixLen = static_cast<size_t>(semi - line) + 1;
    size_t keywordLen = std::strlen(keyword);
    // prefix, length digits, "!", keyword, 16 digits, blank, SHOW, line feed, NUL
    if (prefixLen + 24 + keywordLen + 17 + WORK_LINE_SHOW_MAX + 2 > outSize)
        return -4;
    std::memcpy(out, line, prefixLen);
    out[prefixLen] = '\0';

    int showLen = 0;
    if (scanLengthField(semi + 1, &showLen) < 1 || showLen < 1)
        return -2;
    const char* bang = std::strchr(semi + 1, '!');
    if (bang == nullptr)
        return -3;
    char oldShow[WORK_LINE_SHOW_MAX + 1];
    size_t carry = showLen < WORK_LINE_SHOW_MAX ? static_cast<size_t>(showLen) : WORK_LINE_SHOW_MAX;
    size_t have = strnlen(bang + 1, carry);
    std::memcpy(oldShow, bang + 1, have);
    oldShow[have] = '\0';

    long long newLen = static_cast<long long>(showLen) + static_cast<long long>(keywordLen) + 17;
    std::snprintf(out + prefixLen, outSize - prefixLen, "%lld!%s%016llx %s\n", newLen, keyword,
                  static_cast<unsigned long long>(offset), oldShow);
    return 1;
}

int updatePDRForBackup(const char* line, const char* path, FILE* out, int state, offset_t offset)
{
    const char* keyword = nullptr;
    if (state == PDR_METACH)
        keyword = KEYWORD_CTIMECH;
    else if (state == PDR_BACKUP)
        keyword = KEYWORD_UPDATED;
    return writeWorkLine(line, path, out, keyword, offset, 'b');
}

int updatePDRForExpire(const char* line, const char* path, FILE* out, offset_t offset)
{
    return writeWorkLine(line, path, out, KEYWORD_EXPIRED, offset, 'e');
}

int diffShowData(const char* oldShow, const char* newShow, const char* oldFileset,
                 const char* newFileset, const char* oldHsm, const char* newHsm)
{
    // Positions past a short text read as its end, never beyond it.
    size_t oldLen = std::strlen(oldShow);
    size_t newLen = std::strlen(newShow);
    auto oldAt = [&](size_t pos) { return oldShow + (pos < oldLen ? pos : oldLen); };
    auto newAt = [&](size_t pos) { return newShow + (pos < newLen ? pos : newLen); };

    // Times from the server's query carry no fractions: compare those to the second.
    bool wholeSeconds = std::strncmp(oldAt(20), "000000", 6) == 0 && std::strncmp(oldAt(47), "000000", 6) == 0;
    size_t precision = wholeSeconds ? 20 : 26;

    if (quenby_debug > 3)
        std::fprintf(stderr, "quenby:diffShow:\n  [%s]-[%s %s]\n  [%s]-[%s %s]\n", oldShow, orNull(oldFileset),
                     orNull(oldHsm), newShow, orNull(newFileset), orNull(newHsm));

    if (std::strcmp(oldAt(54), newAt(54)) != 0)
        return SHOW_CONTENT_CHANGED;
    if (std::strncmp(oldShow, newShow, precision) != 0)
        return SHOW_CONTENT_CHANGED;
    int result = std::strncmp(oldAt(27), newAt(27), precision) != 0 ? SHOW_CTIME_CHANGED : 0;
    if (oldHsm == nullptr || newHsm == nullptr || std::strcmp(oldHsm, newHsm) == 0)
        return result;
    if (std::strcmp(oldHsm, "resdnt") == 0 || std::strcmp(newHsm, "resdnt") == 0)
        return result | SHOW_HSM_CHANGED;
    return result;
}
