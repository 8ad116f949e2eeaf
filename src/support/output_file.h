// The output files of a run, made so that a failed or killed run never
// destroys anything: outputs are checked against the inputs before any is
// opened; a whole file is written next to its final name and renamed over
// it only at success; an appended list gains its lines only at success.
#pragma once

#include <climits>
#include <cstring>

#include "support/file_stream.h"

#include <initializer_list>
#include <sys/types.h>

// Refuses an output that names an input or an earlier output: the same
// device and inode, or for a name that does not exist yet the same resolved
// path. Files that are not regular (/dev/null, a pipe) may be named more
// than once. Prints `prefix` + "output X is the input Y\n" (or "... is also
// the output Y") to `messages` and returns -1; 0 when every output stands
// alone. Null names are passed over.
int refuseSharedOutputs(FILE* messages, const char* prefix, std::initializer_list<const char*> inputs,
                        std::initializer_list<const char*> outputs);

// Whether two names are one regular file (device and inode).
bool sameFile(const char* a, const char* b);

// A path in a buffer of its own: no allocation, so that a run short of
// memory still fails cleanly where it opens its outputs.
class PathText {
public:
    static constexpr size_t kCapacity = PATH_MAX + 32;
    const char* c_str() const { return text_; }
    char* data() { return text_; }
    bool empty() const { return length_ == 0; }
    void clear() { text_[length_ = 0] = '\0'; }
    // Appends `n` bytes of `part`; false, with the text cut, when it does
    // not fit.
    bool append(const char* part, size_t n)
    {
        size_t room = kCapacity - 1 - length_;
        size_t take = n < room ? n : room;
        std::memcpy(text_ + length_, part, take);
        text_[length_ += take] = '\0';
        return take == n;
    }
    bool append(const char* part) { return append(part, std::strlen(part)); }
    bool assign(const char* text)
    {
        clear();
        return append(text);
    }

private:
    char text_[kCapacity] = {};
    size_t length_ = 0;
};

// One output file. A regular file (or a name that does not exist yet) is
// written to a temporary file in its directory (replace) or to an unnamed
// staging file (append) and put in place by commit(); anything else is
// written directly, as it always was.
class OutputFile {
public:
    enum class Mode { replace, append };

    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { discard(); }

    // Opens `path`; 0, or the portable error code of the open that failed
    // (what opening the final name directly would have given). A replaced
    // file that is new gets `newMode`, or the caller's umask when it is -1;
    // an existing one keeps its mode.
    int open(const char* path, Mode mode, int newMode = -1);

    FILE* get() const { return file_.get(); }
    explicit operator bool() const { return static_cast<bool>(file_); }

    // Makes the written data durable and puts it under the final name
    // (rename, or append of the staged lines). 0, or EOF when any step
    // failed; the final name is then as it was (replace). Closing a closed
    // file returns 0.
    int commit();
    // Closes without putting anything in place: the temporary file goes,
    // the final name is untouched. fclose's result.
    int discard();

private:
    int openReplace(const char* path, int newMode);
    int openAppend(const char* path);
    // Written straight to the final name, as outputs that are no regular
    // file are.
    int openDirect(const char* path, const char* mode);
    int adopt(StdioFile stream);
    int appendStaged();

    StdioFile file_;  // what the run writes to
    PathText finalPath_;
    PathText tempPath_; // the new file, renamed over the final name at the end
    bool staged_ = false;
};

// Writes the directory entry of `path` to disk (fsync of its directory).
int syncDirectoryOf(const char* path);

// The permission bits of an existing file, or -1.
int fileMode(const char* path);
