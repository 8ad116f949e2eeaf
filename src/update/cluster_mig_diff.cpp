#include "update/cluster_mig_diff.h"

#include <cstdio>

int clusterMigDiff(const char*, const char*, const char*, const char*)
{
    std::fputs("quenby: clustermigdiff is not built yet\n", stderr);
    return -1;
}
