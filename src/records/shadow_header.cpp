#include "records/shadow_header.h"

#include "records/policy_record.h"
#include "support/file_stream.h"

#include <cerrno>
#include <cstring>

namespace {

void copyField(char* out, const char* from, size_t len)
{
    std::memcpy(out, from, len);
    out[len] = '\0';
}

constexpr int kHeaderFields = 7; // magic, name, version, dir, tool, count, date
constexpr size_t kLooseFieldMax = 255;
constexpr size_t kLooseDirMax = 4095;

// Header line 1 cut at its colons, nothing checked. end[i] is the ':'
// closing field i, null from the first missing one on; the date field
// runs to the end of the line.
struct HeaderFields {
    const char* start[kHeaderFields] = {};
    const char* end[kHeaderFields - 1] = {};
    size_t length(int i) const { return static_cast<size_t>(end[i] - start[i]); }
    bool within(int i, size_t least, size_t most) const
    {
        return end[i] != nullptr && length(i) >= least && length(i) <= most;
    }
};

HeaderFields splitHeader(const char* line)
{
    HeaderFields f;
    f.start[0] = line;
    for (int i = 0; i + 1 < kHeaderFields; ++i) {
        f.end[i] = std::strchr(f.start[i], ':');
        if (f.end[i] == nullptr)
            break;
        f.start[i + 1] = f.end[i] + 1;
    }
    return f;
}

bool writeText(FILE* out, const char* text)
{
    size_t len = std::strlen(text);
    return sysFwrite(text, len, out) == len;
}

} // namespace

void setDefaultShadowHeader(ShadowHeader* header, const char* oldShadowPath)
{
    std::strcpy(header->dbName, SHADOW_DEFAULT_DBNAME);
    header->formatVersion = SHADOW_FORMAT_VERSION;
    const char* slash = std::strrchr(oldShadowPath, '/');
    size_t dirLen = slash != nullptr ? static_cast<size_t>(slash - oldShadowPath) : std::strlen(oldShadowPath);
    if (dirLen > SHADOW_BACKUPDIR_MAX)
        dirLen = SHADOW_BACKUPDIR_MAX;
    copyField(header->backupDir, oldShadowPath, dirLen);
    std::strcpy(header->toolName, SHADOW_DEFAULT_TOOLNAME);
    header->headerCount = SHADOW_DEFAULT_COUNT;
    header->creationDate[0] = '\0';
}

int parseShadowHeader(const char* line, ShadowHeader* header)
{
    if (std::strncmp(line, SHADOW_MAGIC, sizeof SHADOW_MAGIC - 1) != 0)
        return -5;
    const HeaderFields f = splitHeader(line);
    if (f.end[0] == nullptr)
        return -6;
    if (!f.within(1, 1, SHADOW_DBNAME_MAX))
        return -7;
    // The line must go on after the name: the version and the rest.
    if (f.start[2][0] == '\0' || f.start[2][0] == '\n')
        return -8;
    int formatVersion = 0;
    if (scanLengthField(f.start[2], &formatVersion) < 1)
        return -9;
    if (f.end[2] == nullptr)
        return -10;
    if (!f.within(3, 0, SHADOW_BACKUPDIR_MAX))
        return -11;
    if (!f.within(4, SHADOW_TOOLNAME_MIN, SHADOW_TOOLNAME_MAX))
        return -12;
    int headerCount = 0;
    if (scanLengthField(f.start[5], &headerCount) < 1)
        return -13;
    if (f.end[5] == nullptr)
        return -14;

    copyField(header->dbName, f.start[1], f.length(1));
    header->formatVersion = formatVersion;
    copyField(header->backupDir, f.start[3], f.length(3));
    copyField(header->toolName, f.start[4], f.length(4));
    header->headerCount = headerCount;
    copyField(header->creationDate, f.start[6], strnlen(f.start[6], SHADOW_DATE_MAX));
    return 0;
}

ShadowHeaderVersion peekShadowHeaderVersion(const char* line)
{
    ShadowHeaderVersion h{0, "", 0};
    const HeaderFields f = splitHeader(line);
    if (!f.within(0, 1, kLooseFieldMax) || !f.within(1, 1, kLooseFieldMax))
        return h;
    const char* versionEnd = nullptr;
    if (scanLengthField(f.start[2], &h.version, &versionEnd) < 1) {
        h.version = 0;
        return h;
    }
    if (*versionEnd != ':')
        return h;
    h.backupDir = versionEnd + 1;
    const char* dirEnd = std::strchr(h.backupDir, ':');
    size_t length = dirEnd != nullptr ? static_cast<size_t>(dirEnd - h.backupDir) : std::strlen(h.backupDir);
    h.backupDirLength = length < kLooseDirMax ? length : kLooseDirMax;
    return h;
}

int readShadowHeader(LineSource& source, ShadowHeader* header)
{
    LineView line;
    source.keepUnterminatedLine(true);
    int got = source.next(line);
    source.keepUnterminatedLine(false);
    if (got <= 0)
        return got < 0 && errno == ENOMEM ? -3 : -2;
    return parseShadowHeader(line.text, header);
}

int writeShadowHeader(FILE* out, const ShadowHeader& header, const char* backupDir, const char* creationDate)
{
    char version[16], count[16];
    std::snprintf(version, sizeof version, "%d", SHADOW_FORMAT_VERSION);
    std::snprintf(count, sizeof count, "%d", header.headerCount);
    size_t dateLen = std::strlen(creationDate);
    // A carried date cut at its limit has lost its line feed; the header
    // line must still end.
    bool needLineFeed = dateLen == 0 || creationDate[dateLen - 1] != '\n';
    const char* parts[] = {
        SHADOW_MAGIC, ":", header.dbName, ":", version, ":", backupDir, ":",
        header.toolName, ":", count, ":", creationDate, needLineFeed ? "\n" : "", SHADOW_COMMENT_LINES,
    };
    for (const char* part : parts)
        if (!writeText(out, part))
            return -1;
    return 0;
}
