// "rebuildshadow": a shadow database rebuilt from the server query and a scan list.
#pragma once

int rebuildShadow(const char* qbsFile, const char* fsListFile, const char* outShadow, const char* sortDir);
