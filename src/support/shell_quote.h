// Quoting a word for the shell: a file name handed to a command line must
// arrive as one word and run nothing.
#pragma once

#include <string>

// True when the shell would read `word` as it stands.
bool shellSafe(const char* word);

// Appends `word` to `out`: unchanged when the shell would read it as it
// stands, else in single quotes, each quote in it written as '\''.
void appendShellWord(std::string& out, const char* word);

// As appendShellWord, for a file name given to a command as an operand: a
// name beginning with "-" goes as "./name", so that it cannot be an option.
void appendShellFileName(std::string& out, const char* name);
