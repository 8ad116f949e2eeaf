#include "clientopts/validate_client.h"

#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/output_file.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kOptionLineSize = 4096;
inline constexpr char kScrollPrompt[] = "Press 'Q' to quit";

bool optionSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The options whose value "YES" sets a flag, in the order they are checked.
struct YesOption {
    const char* name;
    int QBSUserOption::*flag;
};
const YesOption yesOptions[] = {
    {"QUOTESARELITERAL", &QBSUserOption::quotesAreLiteral},
    {"SKIPACL", &QBSUserOption::skipAcl},
    {"SKIPACLUPDATECHECK", &QBSUserOption::skipAclUpdateCheck},
    {"WILDCARDSARELITERAL", &QBSUserOption::wildcardsAreLiteral},
    {"UPDATECTIME", &QBSUserOption::updateCtime},
};

// The flags compared between master and node, in order, with their results;
// `name` is the one the messages print.
struct ComparedFlag {
    const char* name;
    int QBSUserOption::*flag;
    int result;
};
const ComparedFlag comparedFlags[] = {
    {"bQuotesareliteral", &QBSUserOption::quotesAreLiteral, 103},
    {"bSkipacl", &QBSUserOption::skipAcl, 104},
    {"bSkipaclupdatecheck", &QBSUserOption::skipAclUpdateCheck, 105},
    {"bWildcardsareliteral", &QBSUserOption::wildcardsAreLiteral, 106},
    {"bUpdatectime", &QBSUserOption::updateCtime, 107},
};

int copyOption(FILE* copy, const char* name, const char* value)
{
    char line[2 * kOptionLineSize + 4];
    int len = std::snprintf(line, sizeof line, "%s: %s\n", name, value);
    if (len < 0)
        return len;
    return sysFwrite(line, static_cast<size_t>(len), copy) == static_cast<size_t>(len) ? len : -1;
}


} // namespace

void parseQBSOptionLine(char* line, char** name, char** value)
{
    *name = nullptr;
    *value = nullptr;
    size_t len = std::strlen(line);
    if (len == 0)
        return;
    if (line[len - 1] == '\n')
        line[len - 1] = '\0';
    char* p = line;
    while (optionSpace(*p))
        ++p;
    if (*p == '\0')
        return;
    *name = p;
    char* colon = std::strchr(p, ':');
    if (colon == nullptr)
        return;
    *colon = '\0';
    char* v = colon + 1;
    while (optionSpace(*v))
        ++v;
    if (*v != '\0')
        *value = v;
}

int parseQBSOptions(FILE* in, QBSUserOption* opt, FILE* copy)
{
    char line[kOptionLineSize];
    int lastCopy = 0;
    while (std::fgets(line, sizeof line, in) != nullptr) {
        if (quenby_debug > 3)
            std::fprintf(stderr, "quenby:QBS:%s", line);
        char* name = nullptr;
        char* value = nullptr;
        parseQBSOptionLine(line, &name, &value);
        if (name == nullptr)
            continue;
        if (std::strncmp(name, kScrollPrompt, sizeof kScrollPrompt - 1) == 0)
            opt->scrollPrompt = 1;
        if (value == nullptr)
            continue;
        bool flagged = false;
        for (const YesOption& o : yesOptions) {
            if (std::strcmp(name, o.name) == 0 && std::strcmp(value, "YES") == 0) {
                opt->*o.flag = 1;
                flagged = true;
                break;
            }
        }
        if (!flagged && std::strcmp(name, "TESTFLAGS") == 0) {
            if (std::strcmp(value, "QUOTESARELITERAL") == 0)
                opt->quotesAreLiteral = 1;
            else if (std::strcmp(value, "WILDCARDSARELITERAL") == 0)
                opt->wildcardsAreLiteral = 1;
        }
        if (copy != nullptr)
            lastCopy = copyOption(copy, name, value);
    }
    return lastCopy < 0 ? lastCopy : 0;
}

namespace {

// Opens the master's or the node's option file; false after the messages.
bool openOptionFile(StdioFile& file, const char* path, const char* mode, const char* which)
{
    FILE* stream = nullptr;
    openFile(path, mode, &stream);
    if (stream == nullptr) {
        char prefix[64];
        std::snprintf(prefix, sizeof prefix, "quenby: fopen %s QBS configuration file ", which);
        systemError(prefix);
        std::fprintf(stderr, "quenby: validateQBSClient: could not open %s\n", path);
        return false;
    }
    file = StdioFile(stream);
    return true;
}

// Runs the option command, copies its option lines to the node file and
// reads the node's flags from them; 0, or 102 after the message.
int queryNodeOptions(const char* command, const char* nodeOptionFile, QBSUserOption* node)
{
    StdioFile nodeFile;
    if (!openOptionFile(nodeFile, nodeOptionFile, "w", "node"))
        return 102;

    std::fflush(stdout);
    std::fflush(stderr);
    FILE* pipe = sysPopen(command, "r");
    if (pipe == nullptr) {
        std::fprintf(stderr, "quenby: validateQBSClient: %s command could not be run\n", command);
        return 102;
    }
    PipeStream output(pipe);
    // What the node file holds must be on disk before it is trusted.
    if (parseQBSOptions(output.get(), node, nodeFile.get()) < 0 || sysFflush(nodeFile.get()) != 0) {
        std::fprintf(stderr, "quenby: validateQBSClient: could not write %s\n", nodeOptionFile);
        return 102;
    }
    int status = output.close();
    if (status != 0) {
        std::fprintf(stderr, "quenby: validateqbsclient %s command close returned %d\n", command, status);
        return 102;
    }
    return 0;
}

} // namespace

int validateQBSClient(const char* masterOptionFile, const char* nodeOptionFile, const char* /*serverName*/)
{
    QBSUserOption master{};
    QBSUserOption node{};

    const char* command = std::getenv("KESTREL_QOPT_CMD");
    if (command == nullptr) {
        std::fputs("quenby validateqbsclient query - QBS Client option command not provided in exec\n", stderr);
        return 101;
    }
    if (quenby_debug > 1)
        std::fprintf(stderr, "quenby: query user option command: %s\n", command);

    if (refuseSharedOutputs(stderr, "quenby: validateQBSClient: ", {masterOptionFile}, {nodeOptionFile}) != 0)
        return 102;
    StdioFile masterFile;
    if (!openOptionFile(masterFile, masterOptionFile, "r", "master"))
        return 102;
    parseQBSOptions(masterFile.get(), &master, nullptr);

    if (int rc = queryNodeOptions(command, nodeOptionFile, &node))
        return rc;

    for (const ComparedFlag& f : comparedFlags) {
        if (master.*f.flag != node.*f.flag) {
            std::fprintf(stderr, "quenby: validateqbsclient masterOption.%s(%d) and nodeOption.%s(%d) are different\n",
                         f.name, master.*f.flag, f.name, node.*f.flag);
            return f.result;
        }
    }
    if (node.scrollPrompt) {
        std::fputs("quenby: validateqbsclient SCROLLPROMPT option detected on node and cannot continue\n", stderr);
        return 108;
    }
    return 0;
}
