// Internal conditions that must hold; a broken one means a caller's error
// or a corrupted input file, and the sub-command does not go on past it.
#pragma once

#include <stdexcept>
#include <string>

// Thrown by quenbyCheck; the sub-command that catches it reports the
// condition, releases what it holds and returns a failure.
class ConsistencyError : public std::runtime_error {
public:
    explicit ConsistencyError(const char* condition) : std::runtime_error(condition) {}
};

// `text` is the condition as the messages name it.
inline void quenbyCheck(bool condition, const char* text)
{
    if (!condition)
        throw ConsistencyError(text);
}
