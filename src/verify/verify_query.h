// The query walk of verifyshadow: the shadow database compared by path
// with the server's query file.
#pragma once

#include "verify/verify_context.h"

// 1 when something failed verification, 0 when not, otherwise the code of
// the failure that stopped it; *completed tells which.
int verifyQueryWalk(VerifyContext& v, const char* qbsQueryFile, const char* sortedIndexName, bool* completed);
