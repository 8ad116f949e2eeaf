#include "cli/dispatch.h"

#include "bunch/exec_bunch.h"
#include "clientopts/validate_client.h"
#include "rebuild/rebuild_shadow.h"
#include "records/policy_record.h"
#include "support/debug_level.h"
#include "update/cluster_mig_diff.h"
#include "update/update_shadow.h"
#include "verify/verify_shadow.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const SubCommandTable quenbySubCommands = {
    updateShadow, clusterMigDiff, rebuildShadow, execBunch, validateQBSClient, verifyShadow,
};

namespace {

const char usageUpdateShadow[] =
    "Usage: updateShadow <old shadow file> <new shadow file> <list file> <changed file> <expired file> "
    "<unsupp file> [hsm mig file] [subDir] [filesets]\n";
const char usageUpdateShadowCount[] =
    "Usage: updateShadow <old shadow file> <new shadow file> <list file> <chaged file> <expired file> "
    "<unsupp file> [hsm mig file] [subDir] [filesets] ...\n";
const char usageClusterMigDiff[] =
    "Usage: clusterMigDiff <old list file> <new list file>  <changed file> <expired file>\n";
const char usageRebuildShadow[] = "Usage: rebuildShadow <qbs file> <fs list file> <out shadow>\n";
const char usageExecBunch[] =
    "Usage: execBunch <inFile> <outChangeFile> <outExpireFile> <outStateCh> <shadowDB> <bunchSize> "
    "[<pathToRemove>]\n";
const char usageValidateClient[] =
    "Usage: validateqbsclient <QBSClientOptionFileForMaster> <QBSClientOptionFileForNode> "
    "<QBSServerName>\n";
const char usageVerifyShadow[] =
    "Usage: verifyshadow <shadowFile> <prepListFile> [<outputFile> <qbsQueryFile> <sortDirectory>]\n";

int usage(const char* text)
{
    std::fputs(text, stderr);
    return DISPATCH_USAGE_ERROR;
}

// The sub-command's arguments: a(1) is the first word after the keyword.
struct Args {
    int argc;
    char** argv;
    int count() const { return argc - 2; }
    const char* a(int i) const { return argv[i + 1]; }
    const char* aOrNone(int i) const { return i <= count() ? a(i) : nullptr; }
};

int runVersion(const Args&, const SubCommandTable&)
{
    std::printf("quenby version:%d\n", QUENBY_VERSION);
    std::fflush(stdout);
    return 0;
}

int runUpdateShadow(const Args& args, const SubCommandTable& commands)
{
    int n = args.count();
    if (n < 2 || n > 9)
        return usage(usageUpdateShadow);
    if (n != 2 && n != 6 && n != 7 && n != 9)
        return usage(usageUpdateShadowCount);
    return commands.updateShadow(args.a(1), args.a(2), args.aOrNone(3), args.aOrNone(4), args.aOrNone(5),
                                 args.aOrNone(6), args.aOrNone(7), args.aOrNone(8), args.aOrNone(9));
}

int runClusterMigDiff(const Args& args, const SubCommandTable& commands)
{
    if (args.count() != 4)
        return usage(usageClusterMigDiff);
    return commands.clusterMigDiff(args.a(1), args.a(2), args.a(3), args.a(4));
}

int runRebuildShadow(const Args& args, const SubCommandTable& commands)
{
    if (args.count() < 3)
        return usage(usageRebuildShadow);
    // A fifth argument makes the fourth count as not given.
    const char* fourth = args.count() == 4 ? args.a(4) : nullptr;
    return commands.rebuildShadow(args.a(1), args.a(2), args.a(3), fourth);
}

int runExecBunch(const Args& args, const SubCommandTable& commands)
{
    int n = args.count();
    if (n < 6)
        return usage(usageExecBunch);
    if (n == 7 && args.a(7)[0] == '\0')
        return usage(usageExecBunch);
    int bunchSize = static_cast<int32_t>(static_cast<uint32_t>(std::strtol(args.a(6), nullptr, 10)));
    const char* pathToRemove = n == 7 ? args.a(7) : nullptr;
    return commands.execBunch(args.a(1), args.a(2), args.a(3), args.a(4), args.a(5), bunchSize, pathToRemove);
}

int runValidateClient(const Args& args, const SubCommandTable& commands)
{
    if (args.count() != 3)
        return usage(usageValidateClient);
    return commands.validateQBSClient(args.a(1), args.a(2), args.a(3));
}

int runVerifyShadow(const Args& args, const SubCommandTable& commands)
{
    int n = args.count();
    if (n < 2 || n > 5)
        return usage(usageVerifyShadow);
    return commands.verifyShadow(args.a(1), args.a(2), args.aOrNone(3), args.aOrNone(4), args.aOrNone(5));
}

int runHelp(const Args&, const SubCommandTable&);

int runLongVersion(const Args&, const SubCommandTable&)
{
    std::printf("quenby %d\n", QUENBY_VERSION);
    std::fflush(stdout);
    return 0;
}

struct Keyword {
    const char* name;
    int (*run)(const Args&, const SubCommandTable&);
    const char* synopsis; // for --help; null: not listed on a line of its own
};

// Compared in this order; the first exact match decides. The driver never
// sends the three option words, so they cannot change what it sees.
const Keyword keywords[] = {
    {"version", runVersion, ""},
    {"updateshadow", runUpdateShadow,
     "<old shadow> <new shadow> [<list> <changed> <expired> <unsupp> [<hsm mig> [<subdir> <filesets>]]]"},
    {"clustermigdiff", runClusterMigDiff, "<old list> <new list> <changed> <expired>"},
    {"rebuildshadow", runRebuildShadow, "<qbs file> <fs list file> <out shadow> [<sort dir>]"},
    {"execbunch", runExecBunch,
     "<in file> <out change> <out expire> <out state ch> <shadow db> <bunch size> [<path to remove>]"},
    {"validateqbsclient", runValidateClient, "<master option file> <node option file> <server name>"},
    {"verifyshadow", runVerifyShadow, "<shadow file> <prep list> [<output file> <qbs query file> <sort dir>]"},
    {"--help", runHelp, nullptr},
    {"-h", runHelp, nullptr},
    {"--version", runLongVersion, nullptr},
};

int runHelp(const Args&, const SubCommandTable&)
{
    std::fputs("Usage: quenby <keyword> <arguments>\n\n", stdout);
    for (const Keyword& k : keywords)
        if (k.synopsis != nullptr)
            std::printf("  quenby %s%s%s\n", k.name, *k.synopsis != '\0' ? " " : "", k.synopsis);
    std::fputs("  quenby --help | -h | --version\n\n"
               "The backup driver runs one keyword per call; the exit status is its result.\n"
               "Manual: man quenby. File formats: share/doc/quenby/formats.md under the\n"
               "installation prefix (/usr/share/doc/quenby/formats.md from the Debian package).\n",
               stdout);
    std::fflush(stdout);
    return 0;
}

const char* wordOrNull(int argc, char** argv, int i)
{
    return i < argc && argv[i] != nullptr ? argv[i] : "null";
}

} // namespace

void readDebugLevel()
{
    const char* level = std::getenv("DEBUGquenby");
    if (level != nullptr)
        quenby_debug = static_cast<int32_t>(static_cast<uint32_t>(std::strtol(level, nullptr, 10)));
}

int dispatch(int argc, char** argv, const SubCommandTable& commands)
{
    if (argc < 2) {
        std::fputs("quenby: Missing keyword.\n", stderr);
        return DISPATCH_USAGE_ERROR;
    }
    const char* keyword = argv[1];
    if (quenby_debug > 3)
        std::fprintf(stderr, "quenby: %s(argc=%d)\n", keyword, argc);
    if (quenby_debug > 4)
        std::fprintf(stderr, "       (%s . %s . %s . %s . %s . %s . %s . %s . %s)\n", keyword,
                     wordOrNull(argc, argv, 2), wordOrNull(argc, argv, 3), wordOrNull(argc, argv, 4),
                     wordOrNull(argc, argv, 5), wordOrNull(argc, argv, 6), wordOrNull(argc, argv, 7),
                     wordOrNull(argc, argv, 8), wordOrNull(argc, argv, 9));

    Args args{argc, argv};
    for (const Keyword& k : keywords)
        if (std::strcmp(keyword, k.name) == 0)
            return k.run(args, commands);

    std::fprintf(stderr, "quenby: Invalid Keyword: %s\n", keyword);
    return DISPATCH_USAGE_ERROR;
}
