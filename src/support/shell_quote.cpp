#include "support/shell_quote.h"

#include <cstring>
#include <string>

bool shellSafe(const char* word)
{
    // Characters the shell interprets anywhere in a word, or at its start;
    // braces because some shells expand them.
    static const char special[] = " \t\n'\"$;&|<>(){}`\\*?[#~";
    if (*word == '\0')
        return false;
    for (const char* c = word; *c != '\0'; ++c)
        if (std::strchr(special, *c) != nullptr)
            return false;
    return true;
}

void appendShellWord(std::string& out, const char* word)
{
    if (shellSafe(word)) {
        out += word;
        return;
    }
    out += '\'';
    for (const char* c = word; *c != '\0'; ++c) {
        if (*c == '\'')
            out += "'\\''";
        else
            out += *c;
    }
    out += '\'';
}

void appendShellFileName(std::string& out, const char* name)
{
    if (name[0] != '-') {
        appendShellWord(out, name);
        return;
    }
    std::string local = std::string("./") + name;
    appendShellWord(out, local.c_str());
}
