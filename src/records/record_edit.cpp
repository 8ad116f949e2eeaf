#include "records/record_edit.h"

#include "support/debug_level.h"
#include "support/sys_call.h"

#include <cstddef>
#include <cstring>

namespace {

// printf's "%.*s" arguments for a view; "(null)" for a null one.
struct Printable {
    int length;
    const char* text;
    explicit Printable(std::string_view view)
        : length(view.data() != nullptr ? static_cast<int>(view.size()) : 6),
          text(view.data() != nullptr ? view.data() : "(null)")
    {
    }
};

// Builds and writes one work-list line; `tag` names the writer in its message.
int writeWorkLine(const Record& rec, FILE* out, const char* keyword, offset_t offset, char tag)
{
    char built[WORK_LINE_BUF_SIZE];
    built[0] = '\0';
    int rc = -1;
    if (keyword != nullptr) {
        rc = updatePDRForBackupExpire(built, rec.line, keyword, offset, sizeof built);
        if (rc == 1) {
            size_t len = std::strlen(built);
            if (out != nullptr && sysFwrite(built, len, out) == len)
                return 0;
            rc = -1;
        }
    }
    const Printable path(rec.path);
    if (tag == 'b')
        std::fprintf(stderr, "quenby: failed to update PDR(b): [%s] [%.*s] [%s] 0x%llx %d\n", rec.line, path.length,
                     path.text, built, static_cast<unsigned long long>(offset), rc);
    else
        std::fprintf(stderr, "quenby: failed to update PDR(e): %s %.*s %s %llx\n", rec.line, path.length, path.text,
                     built, static_cast<unsigned long long>(offset));
    return -1;
}

// strncmp(a + from, b + from, n) == 0 for texts that hold no NUL, a
// position past a text's end reading as its end.
std::string_view from(std::string_view text, size_t pos, size_t n = std::string_view::npos)
{
    return text.substr(pos < text.size() ? pos : text.size(), n);
}

bool sameFrom(std::string_view a, std::string_view b, size_t pos, size_t n = std::string_view::npos)
{
    return from(a, pos, n) == from(b, pos, n);
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

int updatePDRForBackup(const Record& rec, FILE* out, int state, offset_t offset)
{
    const char* keyword = nullptr;
    if (state == PDR_METACH)
        keyword = KEYWORD_CTIMECH;
    else if (state == PDR_BACKUP)
        keyword = KEYWORD_UPDATED;
    return writeWorkLine(rec, out, keyword, offset, 'b');
}

int updatePDRForExpire(const Record& rec, FILE* out, offset_t offset)
{
    return writeWorkLine(rec, out, KEYWORD_EXPIRED, offset, 'e');
}

int diffShowData(std::string_view oldShow, std::string_view newShow, std::string_view oldFileset,
                 std::string_view newFileset, std::string_view oldHsm, std::string_view newHsm)
{
    // Times from the server's query carry no fractions: compare those to the second.
    bool wholeSeconds = from(oldShow, 20, 6) == "000000" && from(oldShow, 47, 6) == "000000";
    size_t precision = wholeSeconds ? 20 : 26;

    if (quenby_debug > 3) {
        const Printable of(oldFileset), oh(oldHsm), nf(newFileset), nh(newHsm);
        std::fprintf(stderr, "quenby:diffShow:\n  [%.*s]-[%.*s %.*s]\n  [%.*s]-[%.*s %.*s]\n",
                     static_cast<int>(oldShow.size()), oldShow.data(), of.length, of.text, oh.length, oh.text,
                     static_cast<int>(newShow.size()), newShow.data(), nf.length, nf.text, nh.length, nh.text);
    }

    if (!sameFrom(oldShow, newShow, 54))
        return SHOW_CONTENT_CHANGED;
    if (!sameFrom(oldShow, newShow, 0, precision))
        return SHOW_CONTENT_CHANGED;
    int result = !sameFrom(oldShow, newShow, 27, precision) ? SHOW_CTIME_CHANGED : 0;
    if (oldHsm.data() == nullptr || newHsm.data() == nullptr || oldHsm == newHsm)
        return result;
    if (oldHsm == "resdnt" || newHsm == "resdnt")
        return result | SHOW_HSM_CHANGED;
    return result;
}
