// "execbunch": runs the backup client over one bunch and marks every
// reported record of the shadow database in place.
#pragma once

// Result when a record pair or the bunch's offsets break an internal
// condition: the run stops before rewriting anything more.
constexpr int EXECBUNCH_CONSISTENCY_FAILURE = -16;

int execBunch(const char* inFile, const char* outChangeFile, const char* outExpireFile,
              const char* outStateCh, const char* shadowDB, int bunchSize, const char* pathToRemove);
