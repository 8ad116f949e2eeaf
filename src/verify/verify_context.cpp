#include "verify/verify_context.h"

#include "support/file_open.h"

#include <cstdarg>
#include <cstring>

void VerifyContext::reportLine(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    if (std::vfprintf(report.get(), format, args) < 0 && reportError == 0)
        reportError = portableErrnoNonZero();
    va_end(args);
}

void VerifyContext::checkHsmState()
{
    const char* hsm = shadowRec.hsmState;
    if (hsm != nullptr && (std::strcmp(hsm, "resdnt") == 0 || std::strcmp(hsm, "migrat") == 0
                           || std::strcmp(hsm, "premig") == 0))
        return;
    reportLine("Wrong migration state flag: %016llx %s %s\n", (unsigned long long)shadowRec.ino, shadowRec.path.ptr,
               hsm != nullptr ? hsm : "");
    ++counts.invalid;
}

int VerifyContext::readShadow()
{
    for (;;) {
        int rc = shadowRec.read(shadow.get());
        shadowExamined = false;
        if (rc < 0 || shadowRec.endOfFile)
            return rc < 0 ? rc : 0;
        if (rc == PDR_UNSUPPORTED || rc == PDR_INTERNAL) {
            reportLine("INTERNAL file or UNSUPPORTED characters in shadow: %016llx %s\n",
                       (unsigned long long)shadowRec.ino, shadowRec.path.ptr);
            ++counts.invalid;
            continue;
        }
        return 0;
    }
}
