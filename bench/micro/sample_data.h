// Paths and scan-list lines shaped like those bench/gen_data.py writes: the
// same directory pool, file names, pools and SHOW fields, from a fixed seed,
// so the micro-benchmarks see the lengths and mix of a real file system.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

struct SampleRecord {
    std::string line; // ends in a line feed
    std::string path; // relative to the mount point
    std::string fileset;
    std::string hsmState;
    uint64_t ino = 0;
};

class SampleData {
public:
    explicit SampleData(uint64_t seed, size_t directories = 5000);

    // The relative path of file `serial`; different serials give different paths.
    std::string path(uint64_t serial);
    // The scan-list record of file `serial` with inode number `ino`.
    SampleRecord record(uint64_t serial, uint64_t ino);

    std::mt19937_64& rng() { return rng_; }

private:
    struct Directory {
        std::string path;
        std::string fileset;
    };

    size_t below(size_t n) { return static_cast<size_t>(rng_() % n); }
    double unit() { return std::uniform_real_distribution<double>(0.0, 1.0)(rng_); }
    const Directory& directory() { return dirs_[below(dirs_.size())]; }
    std::string name(uint64_t serial);

    std::mt19937_64 rng_;
    std::vector<Directory> dirs_;
};

// Scan-list records with ascending inode numbers, all of them in one text.
struct SampleList {
    std::vector<SampleRecord> records;
    std::string text;
    uint64_t inoSum = 0; // wraps; a cheap check that every record was read
};

SampleList makeSampleList(size_t count, uint64_t seed);
