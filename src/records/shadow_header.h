// Header line 1 of a shadow database: read from the previous database,
// carried over, written at the top of the next one, and checked by
// verifyshadow.
#pragma once

#include "support/line_source.h"

#include <cstddef>
#include <cstdio>

constexpr int SHADOW_DBNAME_MAX = 19;
constexpr int SHADOW_BACKUPDIR_MAX = 4096;
constexpr int SHADOW_TOOLNAME_MIN = 2;
constexpr int SHADOW_TOOLNAME_MAX = 32;
constexpr int SHADOW_DATE_MAX = 31;

inline constexpr char SHADOW_DEFAULT_DBNAME[] = "00_BACKUP_FILES_41";
inline constexpr char SHADOW_DEFAULT_TOOLNAME[] = "kestrel";
constexpr int SHADOW_DEFAULT_COUNT = 1;

struct ShadowHeader {
    char dbName[SHADOW_DBNAME_MAX + 1];
    int formatVersion;
    char backupDir[SHADOW_BACKUPDIR_MAX + 1];
    char toolName[SHADOW_TOOLNAME_MAX + 1];
    int headerCount;
    char creationDate[SHADOW_DATE_MAX + 1];
};

// The values used when the previous header cannot be read; the backup
// directory is the directory part of the previous database's path.
void setDefaultShadowHeader(ShadowHeader* header, const char* oldShadowPath);

// Parses header line 1. 0, or the code of the first failing check (-5 to -14).
int parseShadowHeader(const char* line, ShadowHeader* header);

// What verifyshadow has always taken from header line 1, more leniently
// than parseShadowHeader: the format version, 0 unless the two fields
// before it are 1 to 255 bytes each; and the backup directory (at most
// 4095 bytes, not NUL-terminated), empty unless ':' follows the version.
struct ShadowHeaderVersion {
    int version;
    const char* backupDir;
    size_t backupDirLength;
};
ShadowHeaderVersion peekShadowHeaderVersion(const char* line);

// Reads the first line of `source` (one without its line feed too) and
// parses it. 0, -2 empty or unreadable file, -3 no memory, or a parse code.
int readShadowHeader(LineSource& source, ShadowHeader* header);

// Writes the five header lines: `backupDir` and `creationDate` (which ends
// line 1) as given, the rest from `header`. 0, or a negative result.
int writeShadowHeader(FILE* out, const ShadowHeader& header, const char* backupDir, const char* creationDate);
