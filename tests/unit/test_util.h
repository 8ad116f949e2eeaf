// Helpers shared by the unit tests: scratch directories, whole-file reads
// and writes, and a guard that restores the program's globals.
#pragma once

#include "cli/dispatch.h"
#include "support/sys_call.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>
#include <unistd.h>

namespace testutil {

// A fresh directory under the system temporary directory, removed at the end.
class ScratchDir {
public:
    ScratchDir()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "quenby-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDir()
    {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

inline void writeFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

inline std::string readFile(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

inline bool fileExists(const std::string& path) { return std::filesystem::exists(path); }

// Restores quenby_debug, migDiff and the fault plan, and unsets the
// environment variables a test set, whatever way the test ends.
class GlobalsGuard {
public:
    ~GlobalsGuard()
    {
        quenby_debug = 0;
        migDiff = 0;
        sysFaultsClear();
        for (const std::string& name : env_)
            unsetenv(name.c_str());
    }
    void setEnv(const std::string& name, const std::string& value)
    {
        setenv(name.c_str(), value.c_str(), 1);
        env_.push_back(name);
    }

private:
    std::vector<std::string> env_;
};

} // namespace testutil
