// "validateqbsclient": the backup client options on this node checked
// against the master's.
#pragma once

#include <cstdio>

// The option flags of one side; each is set to 1 by the parser, never back.
struct QBSUserOption {
    int quotesAreLiteral;
    int skipAcl;
    int skipAclUpdateCheck;
    int wildcardsAreLiteral;
    int updateCtime;
    int scrollPrompt;
};

// Splits "name: value" in place. *name is null for a line of white space
// only; *value is null without a colon or with nothing after it.
void parseQBSOptionLine(char* line, char** name, char** value);

// Reads `in` to its end, setting the flags of `opt`; every line with a name
// and a value is copied to `copy` (when given) as "name: value". 0, or the
// negative result of the last copy when it failed.
int parseQBSOptions(FILE* in, QBSUserOption* opt, FILE* copy);

// 0 when the node agrees with the master; 101 no option command; 102 a file
// or the command failed; 103 to 107 the first differing flag; 108 the node
// shows the scroll prompt.
int validateQBSClient(const char* masterOptionFile, const char* nodeOptionFile, const char* serverName);
