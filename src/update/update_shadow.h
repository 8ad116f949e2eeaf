// "updateshadow": the previous shadow database merged with a fresh scan
// list into the next shadow database and the work lists.
#pragma once

// Parameters in order: old shadow file, new shadow file, list file, changed
// file, expired file, unsupported file, HSM-migrated file, subdirectory,
// fileset list; all but the first two may be null. 0 on success, negative
// on failure; prints one result line once past the argument check.
int updateShadow(const char* oldShadowFile, const char* newShadowFile, const char* listFile,
                 const char* changedFile, const char* expiredFile, const char* unsuppFile,
                 const char* hsmMigFile, const char* subDir, const char* filesets);
