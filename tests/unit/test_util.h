// Helpers shared by the unit tests.
#pragma once

#include "records/policy_record.h"
#include "support/debug_level.h"
#include "support/sys_call.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace testutil {

inline const std::string kShowFields = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42";
inline const std::string kShow = kShowFields + " root resdnt";
inline const std::string kDbHeader =
    "%%mshadow0%%:00_BACKUP_FILES_41:1400:/mnt/cluster/fs1:kestrel:1:Mon Nov 23 08:20:00 2026\n";

// The fields of a record line; a negative `pathLen` marks an escaped path.
struct Rec {
    unsigned long long ino = 0xabcd;
    unsigned gen = 1;
    std::string flag = "0", path = "a/b/c", show = kShow;
    int pathLen = INT_MIN;
};

inline std::string record(const Rec& r)
{
    char ids[64];
    std::snprintf(ids, sizeof ids, "0:0:%016llx:%x:0:0:0:", r.ino, r.gen);
    const int len = r.pathLen == INT_MIN ? static_cast<int>(r.path.size()) : r.pathLen;
    return ids + r.flag + ":" + std::to_string(len) + "!" + r.path + ":6!system;"
           + std::to_string(r.show.size()) + "!" + r.show + "\n";
}

struct ScratchDir {
    std::filesystem::path path = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "quenby-test-XXXXXX").string();
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        return pattern;
    }();
    ~ScratchDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
    std::string file(const std::string& name) const { return (path / name).string(); }
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

template <typename F>
std::string stderrOf(F&& f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// Restores the program's globals and environment however a test ends.
struct GlobalsGuard {
    std::vector<std::string> env;
    ~GlobalsGuard()
    {
        quenby_debug = 0;
        sysFaultsClear();
        for (const std::string& name : env)
            unsetenv(name.c_str());
    }
    void setEnv(const std::string& name, const std::string& value)
    {
        setenv(name.c_str(), value.c_str(), 1);
        env.push_back(name);
    }
};

} // namespace testutil
