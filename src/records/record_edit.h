// Edits of one record line: the state rewritten in place, the work-list
// lines written from a record, and the comparison of two SHOW attributes.
#pragma once

#include "records/policy_record.h"
#include "records/record_reader.h"

#include <cstddef>
#include <cstdio>
#include <string_view>

// Work-list keywords, eight characters each.
inline constexpr char KEYWORD_UPDATED[] = "updated ";
inline constexpr char KEYWORD_CTIMECH[] = "ctimech ";
inline constexpr char KEYWORD_EXPIRED[] = "expired ";

// At most this many characters of the old SHOW text are carried into a
// work-list line.
constexpr int WORK_LINE_SHOW_MAX = 509;
// Room for a work-list line built from a record line: a record prefix far
// longer than any real path, plus the additions.
constexpr size_t WORK_LINE_BUF_SIZE = 32768 + 8 + 17 + WORK_LINE_SHOW_MAX + 32;

// SHOW comparison bits.
constexpr int SHOW_CONTENT_CHANGED = 1;
constexpr int SHOW_CTIME_CHANGED = 2;
constexpr int SHOW_HSM_CHANGED = 4;

// Rewrites the record flag of `line` in place, keeping the line's length.
// 0 done; 1 state not 0 and not 0xa..0xf; 2 the line has no "!" (or no
// flag field before it).
int changePDRState(char* line, int state);

// Builds the work-list line for `line` into `out` (of `outSize` bytes).
// 1 built; -1 no ";"; -2 SHOW length missing or below 1; -3 no "!" after the
// last ";"; -4 the line does not fit `out`.
int updatePDRForBackupExpire(char* out, const char* line, const char* keyword, offset_t offset,
                             size_t outSize = WORK_LINE_BUF_SIZE);

// Writes the "updated " (state 0xb) or "ctimech " (state 0xa) work-list line
// of `line` to `out`. 0 written; -1 failed, with a message.
int updatePDRForBackup(const Record& rec, FILE* out, int state, offset_t offset);

// Writes the "expired " work-list line of `line` to `out`. 0 or -1.
int updatePDRForExpire(const Record& rec, FILE* out, offset_t offset);

// Compares two SHOW attributes (fields 1 to 5 as the reader gives them);
// a null HSM view is a record without one.
// 0 no difference that matters; 1 size or mtime; 2 ctime only; 4 HSM state
// from or to "resdnt" (with 2: 6).
int diffShowData(std::string_view oldShow, std::string_view newShow, std::string_view oldFileset,
                 std::string_view newFileset, std::string_view oldHsm, std::string_view newHsm);
