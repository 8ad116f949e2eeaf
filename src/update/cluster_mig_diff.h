// "clustermigdiff": work lists from two scan lists, without a shadow database.
#pragma once

int clusterMigDiff(const char* oldListFile, const char* newListFile, const char* changedFile,
                   const char* expiredFile);
