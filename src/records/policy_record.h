// The record line shared by shadow databases and policy scan lists, the
// shadow database's header constants, the record flags, and the scanners
// of a record's head.
#pragma once


#include <cstddef>
#include <cstdint>
#include <cstdio>

using offset_t = int64_t;

// Record flags: the last hexadecimal digit of field 8.
constexpr int PDR_NORMAL = 0x0;
constexpr int PDR_METACH = 0xa;
constexpr int PDR_BACKUP = 0xb;
constexpr int PDR_CHANGE = 0xc;
constexpr int PDR_DELETE = 0xd;
constexpr int PDR_EXPIRE = 0xe;

// Header block of a shadow database.
inline constexpr char SHADOW_MAGIC[] = "%%mshadow0%%";
inline constexpr char SHADOW_COMMENT_TAG[] = "%%shadow%%";
constexpr int SHADOW_FORMAT_VERSION = 1400; // written, and required by verifyshadow
inline constexpr char SHADOW_COMMENT_LINES[] =
    "%%shadow%%:03_COMMENT::1:\n"
    "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
    "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
    "%%shadow%%:03_COMMENT::4:\n";

// Bytes the backup server cannot take in a path, and the escaped line feed
// that it cannot take in an escaped path.
inline constexpr char UnsupQBSCharList[] = "\x18\x19";
inline constexpr char UnsupEscCharList[] = "\\n";

// The line buffer the record readers of old started with: a message tells
// a path that would end beyond it from one longer than the line.
constexpr size_t PDR_LINE_BUF_SIZE = 8192;

// Results of the record reader besides 0 and -1.
constexpr int PDR_UNSUPPORTED = 2;
constexpr int PDR_INTERNAL = 3;

// True for a header line of a shadow database.
bool isShadowHeaderLine(const char* line);

// The record's head "%*x:%*llx:%016llx:%llx:%*llx:%*x:%*x:%x:%d!%*s" parsed
// exactly as sscanf parses it; returns the number of values stored (0 to 4),
// or -1 when the text ran out before the first. `end`, when given, receives
// where the scan stopped.
int scanRecordHead(const char* text, uint64_t* ino, uint64_t* gen, unsigned int* flag, int* pathLen,
                   const char** end = nullptr);
// "%d!%*s" as sscanf parses it; returns the number of values stored (0 or 1),
// or -1 when the text ran out first.
int scanLengthField(const char* text, int* length, const char** end = nullptr);

// Which of the backup tool's own paths a reader passes over. The readers
// have always differed, and their outputs show it, so each keeps its rule.
enum class InternalPaths {
    all,       // ".", names beginning ".kestrel" or ".execScript": records
    noScripts, // ".", names beginning ".kestrel": the path-sorted index
    toolOnly,  // names beginning ".kestrel": the server's query file
};
bool isInternalPath(const char* path, InternalPaths rule = InternalPaths::all);
