#include "sample_data.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

const char* const kComponents[] = {
    "src", "include", "lib", "docs", "results", "data", "build", "tmp", "archive", "old", "test", "tests",
    "scripts", "config", "logs", "output", "input", "figures", "raw", "processed", "v2", "backup", "notes",
    "shared", "release-1.4", "module_%d", "run_%03d", "2019", "2020", "2021", "2022", "2023", "Q%d",
    "batch_%02d", "sample-%04d", "case%d", "chapter%d", "photos", "mail", "work",
};
const char* const kBlankComponents[] = {"My Documents", "Meeting Notes", "draft copy"};
const char* const kStems[] = {
    "file", "report", "data", "image", "notes", "main", "util", "analysis", "output",
    "log", "summary", "IMG", "scan", "table", "part", "checkpoint", "config", "index",
};
const char* const kBlankStems[] = {"report 2019", "Copy of budget", "final version"};
const char* const kOddStems[] = {"notes: draft;v2!", "a:b", "x;y", "hello!", "time 12:30; take 2!"};
const char* const kExts[] = {
    "c", "h", "cpp", "py", "txt", "pdf", "dat", "csv", "log", "tar.gz",
    "jpg", "png", "h5", "nc", "docx", "xlsx", "json", "md", "o", "bin",
};
const char* const kProjects[] = {"alpha", "beta", "gamma", "delta", "orion", "lyra", "vega", "atlas"};
const char* const kModes[] = {"1:81a4", "1:81a4", "1:81a4", "1:81a4", "1:81a4", "1:81a4", "1:81a4", "1:81a4",
                              "1:81a4", "1:81a4", "1:81a4", "1:81a4", "1:81ed", "1:8180", "2:81a4", "1:a1ff"};

template <typename... Args>
std::string format(const char* fmt, Args... args)
{
    char buf[512];
    int n = std::snprintf(buf, sizeof buf, fmt, args...);
    return std::string(buf, n < 0 ? 0 : static_cast<size_t>(n));
}

template <size_t N>
size_t count(const char* const (&)[N])
{
    return N;
}

// "YYYY-MM-DD HH:MM:SS" of a time between 2012 and 2024 (days of 28 to keep it simple).
std::string timestamp(uint64_t seconds)
{
    uint64_t day = seconds / 86400;
    uint64_t tod = seconds % 86400;
    return format("%04u-%02u-%02u %02u:%02u:%02u", static_cast<unsigned>(2012 + day / 336),
                  static_cast<unsigned>(day / 28 % 12 + 1), static_cast<unsigned>(day % 28 + 1),
                  static_cast<unsigned>(tod / 3600), static_cast<unsigned>(tod / 60 % 60),
                  static_cast<unsigned>(tod % 60));
}

} // namespace

SampleData::SampleData(uint64_t seed, size_t directories) : rng_(seed)
{
    dirs_.reserve(directories);
    for (size_t n = 0; n < directories; ++n) {
        std::vector<std::string> parts;
        std::string fileset = "root";
        double r = unit();
        if (r < 0.30) {
            parts = {"home", format("user%zu", 1 + below(199))};
            fileset = "home";
        } else if (r < 0.65) {
            size_t pj = below(count(kProjects));
            parts = {"projects", kProjects[pj]};
            fileset = format("proj%02zu", pj + 1);
        } else if (r < 0.78) {
            parts = {"scratch", format("job_%05zu", below(100000))};
            fileset = "scratch";
        } else if (r < 0.97) {
            const char* tops[] = {"data", "software", "shared"};
            parts = {tops[below(3)]};
        }
        // At most seven directory levels, mostly few.
        size_t room = 7 - parts.size();
        size_t depth = std::min(room, static_cast<size_t>(std::pow(unit(), 1.6) * static_cast<double>(room + 1)));
        for (size_t d = 0; d < depth; ++d) {
            const char* c = unit() < 0.015 ? kBlankComponents[below(count(kBlankComponents))]
                                           : kComponents[below(count(kComponents))];
            parts.push_back(format(c, static_cast<int>(1 + below(99))));
        }
        std::string path;
        for (const std::string& part : parts)
            path += (path.empty() ? "" : "/") + part;
        dirs_.push_back({path, fileset});
    }
}

std::string SampleData::name(uint64_t serial)
{
    double r = unit();
    const char* stem = r < 0.003  ? kOddStems[below(count(kOddStems))]
                       : r < 0.02 ? kBlankStems[below(count(kBlankStems))]
                                  : kStems[below(count(kStems))];
    return format("%s_%llu.%s", stem, static_cast<unsigned long long>(serial), kExts[below(count(kExts))]);
}

std::string SampleData::path(uint64_t serial)
{
    const Directory& dir = directory();
    std::string file = name(serial);
    return dir.path.empty() ? file : dir.path + "/" + file;
}

SampleRecord SampleData::record(uint64_t serial, uint64_t ino)
{
    SampleRecord rec;
    const Directory& dir = directory();
    std::string file = name(serial);
    rec.path = dir.path.empty() ? file : dir.path + "/" + file;
    rec.fileset = dir.fileset;
    rec.ino = ino;
    double h = unit();
    rec.hsmState = h < 0.05 ? "migrat" : h < 0.06 ? "premig" : "resdnt";

    const uint64_t span = 12ull * 336 * 86400;
    uint64_t mtime = static_cast<uint64_t>(static_cast<double>(span) * std::sqrt(unit()));
    uint64_t ctime = unit() < 0.4 ? mtime : mtime + rng_() % (span - mtime + 1);
    unsigned usec = static_cast<unsigned>(rng_() % 1000000);
    unsigned long long size = rng_() >> (28 + below(36));
    std::string show = timestamp(mtime) + format(".%06u ", usec) + timestamp(ctime)
                       + format(".%06u %llu ", usec, size) + rec.fileset + " " + rec.hsmState;
    const char* pool = h < 0.7 ? "data" : h < 0.9 ? "system" : "archive";

    rec.line = format("%x:8f3a0c5e91d2b474:%016llx:%x:0:%s:%s:", static_cast<unsigned>(rng_()),
                      static_cast<unsigned long long>(ino), static_cast<unsigned>(rng_()) | 1u,
                      kModes[below(count(kModes))], unit() < 0.01 ? "00000000" : "0");
    rec.line += format("%zu!", rec.path.size()) + rec.path;
    rec.line += format(":%zu!%s;%zu!", std::char_traits<char>::length(pool), pool, show.size()) + show + "\n";
    return rec;
}

SampleList makeSampleList(size_t count, uint64_t seed)
{
    SampleData data(seed);
    SampleList list;
    list.records.reserve(count);
    uint64_t ino = 0xff;
    for (size_t i = 0; i < count; ++i) {
        ino += 1 + data.rng()() % 50;
        list.records.push_back(data.record(i, ino));
        list.text += list.records.back().line;
        list.inoSum += ino;
    }
    return list;
}
