#include "update/shadow_header.h"

#include "records/policy_record.h"
#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cstring>

namespace {

void copyField(char* out, const char* from, size_t len)
{
    std::memcpy(out, from, len);
    out[len] = '\0';
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
    header->formatVersion = SHADOW_DEFAULT_FORMAT;
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
    const char* colon = std::strchr(line, ':');
    if (colon == nullptr)
        return -6;

    const char* name = colon + 1;
    const char* nameEnd = std::strchr(name, ':');
    if (nameEnd == nullptr || nameEnd == name || nameEnd - name > SHADOW_DBNAME_MAX)
        return -7;
    // The line must go on after the name: the version and the rest.
    if (nameEnd[1] == '\0' || nameEnd[1] == '\n')
        return -8;

    const char* version = nameEnd + 1;
    int formatVersion = 0;
    if (scanLengthField(version, &formatVersion) < 1)
        return -9;
    const char* versionEnd = std::strchr(version, ':');
    if (versionEnd == nullptr)
        return -10;

    const char* dir = versionEnd + 1;
    const char* dirEnd = std::strchr(dir, ':');
    if (dirEnd == nullptr || dirEnd - dir > SHADOW_BACKUPDIR_MAX)
        return -11;

    const char* tool = dirEnd + 1;
    const char* toolEnd = std::strchr(tool, ':');
    if (toolEnd == nullptr || toolEnd - tool < SHADOW_TOOLNAME_MIN || toolEnd - tool > SHADOW_TOOLNAME_MAX)
        return -12;

    const char* count = toolEnd + 1;
    int headerCount = 0;
    if (scanLengthField(count, &headerCount) < 1)
        return -13;
    const char* countEnd = std::strchr(count, ':');
    if (countEnd == nullptr)
        return -14;

    copyField(header->dbName, name, static_cast<size_t>(nameEnd - name));
    header->formatVersion = formatVersion;
    copyField(header->backupDir, dir, static_cast<size_t>(dirEnd - dir));
    copyField(header->toolName, tool, static_cast<size_t>(toolEnd - tool));
    header->headerCount = headerCount;
    copyField(header->creationDate, countEnd + 1, strnlen(countEnd + 1, SHADOW_DATE_MAX));
    return 0;
}

int readShadowHeader(FILE* stream, char** lineBuf, int* lineBufSize, ShadowHeader* header)
{
    for (;;) {
        char* line = *lineBuf;
        if (fgets_unlocked(line, *lineBufSize, stream) == nullptr)
            return -2;
        size_t len = std::strlen(line);
        if (len + 1 < static_cast<size_t>(*lineBufSize) || line[len - 1] == '\n')
            break;
        if (!resizeBuffer(lineBuf, lineBufSize, 2LL * *lineBufSize))
            return -3;
        if (sysFseeko(stream, -static_cast<off_t>(len), SEEK_CUR) != 0)
            return -4;
    }
    return parseShadowHeader(*lineBuf, header);
}

int writeShadowHeader(FILE* out, const ShadowHeader& header, const char* backupDir, const char* creationDate)
{
    char count[16];
    std::snprintf(count, sizeof count, "%d", header.headerCount);
    size_t dateLen = std::strlen(creationDate);
    // A carried date cut at its limit has lost its line feed; the header
    // line must still end.
    bool needLineFeed = dateLen == 0 || creationDate[dateLen - 1] != '\n';
    const char* parts[] = {
        SHADOW_MAGIC, ":", header.dbName, ":", SHADOW_FORMAT_VERSION, ":", backupDir, ":",
        header.toolName, ":", count, ":", creationDate, needLineFeed ? "\n" : "", SHADOW_COMMENT_LINES,
    };
    for (const char* part : parts)
        if (!writeText(out, part))
            return -1;
    return 0;
}
