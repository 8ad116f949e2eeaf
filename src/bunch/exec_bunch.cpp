#include "bunch/exec_bunch.h"

#include <cstdio>

int execBunch(const char*, const char*, const char*, const char*, const char*, int, const char*)
{
    std::fputs("quenby: execbunch is not built yet\n", stderr);
    return -1;
}
