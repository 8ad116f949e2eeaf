// "execbunch": runs the backup client over one bunch and marks every
// reported record of the shadow database in place.
#pragma once

int execBunch(const char* inFile, const char* outChangeFile, const char* outExpireFile,
              const char* outStateCh, const char* shadowDB, int bunchSize, const char* pathToRemove);
