// The command driver: debug level, keyword table, argument checks, usage
// texts and the hand-over to exactly one sub-command.
#pragma once

constexpr int QUENBY_VERSION = 3;
constexpr int DISPATCH_USAGE_ERROR = 22;

// The sub-command functions the driver hands over to. Tests put recorders in
// their place to see exactly what each command line hands over.
struct SubCommandTable {
    int (*updateShadow)(const char*, const char*, const char*, const char*, const char*, const char*,
                        const char*, const char*, const char*);
    int (*clusterMigDiff)(const char*, const char*, const char*, const char*);
    int (*rebuildShadow)(const char*, const char*, const char*, const char*);
    int (*execBunch)(const char*, const char*, const char*, const char*, const char*, int, const char*);
    int (*validateQBSClient)(const char*, const char*, const char*);
    int (*verifyShadow)(const char*, const char*, const char*, const char*, const char*);
};

extern const SubCommandTable quenbySubCommands;

// Sets quenby_debug from "DEBUGquenby" (a base-10 number, not validated).
void readDebugLevel();

// Picks the sub-command by argv[1] and returns its result, or 22 for a
// usage error of the driver's own.
int dispatch(int argc, char** argv, const SubCommandTable& commands = quenbySubCommands);
