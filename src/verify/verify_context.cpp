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
    const std::string_view hsm = shadowRec.hsmState;
    if (hsm == "resdnt" || hsm == "migrat" || hsm == "premig")
        return;
    reportLine("Wrong migration state flag: %016llx %.*s %.*s\n", (unsigned long long)shadowRec.ino,
               VIEW_ARGS(shadowRec.path), VIEW_ARGS(hsm));
    ++counts.invalid;
}

int VerifyContext::readShadow()
{
    for (;;) {
        int rc = shadowReader.next(shadowRec);
        shadowAtEnd = shadowReader.atEnd();
        shadowExamined = false;
        if (rc < 0 || shadowAtEnd)
            return rc < 0 ? rc : 0;
        if (rc == PDR_UNSUPPORTED || rc == PDR_INTERNAL) {
            reportLine("INTERNAL file or UNSUPPORTED characters in shadow: %016llx %.*s\n",
                       (unsigned long long)shadowRec.ino, VIEW_ARGS(shadowRec.path));
            ++counts.invalid;
            continue;
        }
        return 0;
    }
}
