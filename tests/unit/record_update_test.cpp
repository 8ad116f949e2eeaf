// In-place record updates: the whole shadow file is compared before and
// after, so a rewrite that moves or touches anything but a flag shows.
#include "bunch/record_update.h"

#include "bunch/path_index.h"
#include "support/consistency.h"
#include "test_util.h"

#include <algorithm>
#include <cerrno>
#include <optional>

// One record line; shared with the client monitor tests.
std::string shadowRecord(unsigned ino, const std::string& flag, const std::string& path, unsigned gen = 1)
{
    char head[64];
    std::snprintf(head, sizeof head, "0:0:%016x:%x:0:0:0:", ino, gen);
    return head + flag + ":" + std::to_string(path.size()) + "!" + path
           + ":6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n";
}

namespace {

using Flags = std::vector<std::string>;
const std::string kLead = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/mnt/cluster/fs1:kestrel:1:Mon Nov 23 08:20:00 2026\n"
                          + shadowRecord(0x10, "e", "/fs/lead");

// The tested record (and its twin) between two neighbours.
std::string shadow(const Flags& flags, unsigned ino2, unsigned gen2)
{
    return kLead + shadowRecord(0x20, flags[0], "/fs/old")
           + (flags.size() > 1 ? shadowRecord(ino2, flags[1], "/fs/new", gen2) : "")
           + shadowRecord(0x30, "b", "/fs/tail");
}

TEST(RecordUpdate, ReportsAndFailuresRewriteOnlyFlags)
{
    const std::string revert = "quenby:QBS transaction failure. Reverting record [/fs/";
    const std::string eio = " failed: Input/output error\n";
    const std::string flagRule =
        "ConsistencyError: newState == 0x0? ((uflag == 0xb) || (uflag == 0xa)): (uflag == 0x0)";
    // `err`: what reaches stderr, then the broken condition; `slot` 0: the
    // path's own slot. A pread fault on an unchanged record proves that it
    // was not read at all.
    struct Case {
        const char* name; Flags before; int newState; uint32_t mark; Flags after; uint32_t markAfter;
        std::string err; int result = 0; SysCall fault = SysCall::count_; int nth = 1;
        unsigned ino2 = 0x20, gen2 = 1; bool atEnd = false; uint32_t slot = 0;
    } cases[] = {
        {"done CHANGE+BACKUP pair", {"c", "b"}, 0x0, 0, {"d", "0"}, 1, ""},
        {"done CHANGE+METACH pair", {"c", "a"}, 0x0, 0, {"d", "0"}, 1, ""},
        {"done NORMAL", {"0"}, 0x0, 0, {"0"}, 0, ""},
        {"done BACKUP", {"b"}, 0x0, 0, {"0"}, 1, ""},
        {"done DELETE after a failure", {"d"}, 0x0, 4, {"0"}, 1, ""},
        {"done wide flag", {"0000000b"}, 0x0, 0, {"00000000"}, 1, ""},
        {"expired EXPIRE", {"e"}, 0xd, 0, {"d"}, 2, ""},
        {"failed DELETE pair", {"d", "0"}, 0xb, 1, {"c", "b"}, 4, revert + "new]\n"},
        {"failed BACKUP", {"b"}, 0xb, 1, {"b"}, 1, ""},
        {"failed NORMAL", {"0"}, 0xb, 1, {"b"}, 4, revert + "old]\n"},
        {"done again", {"b"}, 0x0, 1, {"b"}, 1, "", 0, SysCall::pread},
        {"expired again", {"e"}, 0xd, 2, {"e"}, 2, "", 0, SysCall::pread},
        {"failed again", {"0"}, 0xb, 4, {"0"}, 4, "", 0, SysCall::pread},
        {"failed, never done", {"0"}, 0xb, 0, {"0"}, 0, "", 0, SysCall::pread},
        {"read fails", {"b"}, 0x0, 0, {"b"}, 0, "updateShadowPDR() read2 failed code -1\n", -1, SysCall::pread},
        {"write fails", {"b"}, 0x0, 0, {"b"}, 0, "updateShadowPDR() fputs2" + eio, -1, SysCall::pwrite},
        {"pair write 1 fails", {"c", "b"}, 0x0, 0, {"c", "b"}, 0, "updateShadowPDR() fputs1" + eio, -1,
         SysCall::pwrite},
        {"pair write 2 fails", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, "updateShadowPDR() fputs2" + eio, -1, SysCall::pwrite,
         2},
        {"pair of two files", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, "ConsistencyError: uino == preino", 0,
         SysCall::count_, 1, 0x21},
        {"pair of two generations", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, "ConsistencyError: ugen == pregen", 0,
         SysCall::count_, 1, 0x20, 2},
        {"pair with EXPIRE twin", {"c", "e"}, 0x0, 0, {"d", "e"}, 0, flagRule},
        {"reverted pair with BACKUP twin", {"d", "b"}, 0xb, 1, {"c", "b"}, 1, flagRule},
        {.name = "offset at the end", .before = {"b"}, .newState = 0x0, .mark = 0, .after = {"b"}, .markAfter = 0,
         .err = "updateShadowPDR() read2 failed code 0\n", .atEnd = true},
        // Outside the index there is no mark, so even a revert of a record never done is applied.
        {.name = "slot outside", .before = {"0"}, .newState = 0xb, .mark = 0, .after = {"b"}, .markAfter = 0,
         .err = revert + "old]\n", .slot = 100},
    };
    testutil::ScratchDir dir;
    const std::string db = dir.file("shadow");
    pathIndexReset();
    gsiCount = 100;
    ASSERT_EQ(gsi_insert(std::string("/fs/old").data(), static_cast<offset_t>(kLead.size())), 0);
    uint32_t slot = 0;
    gsi_findIndex("/fs/old", &slot);
    ASSERT_TRUE(allocUpdateBuffers());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string text = shadow(c.before, c.ino2, c.gen2);
        testutil::writeFile(db, text);
        gsiHashP[slot].updateMark = c.mark;
        if (c.fault != SysCall::count_)
            sysFailOn(c.fault, c.nth, EIO);
        FILE* f = std::fopen(db.c_str(), "r+");
        testing::internal::CaptureStderr();
        int result = 0;
        std::string thrown;
        try {
            result = updateShadowPDR(f, static_cast<offset_t>(c.atEnd ? text.size() : kLead.size()), c.newState,
                                     c.slot != 0 ? c.slot : slot);
        } catch (const ConsistencyError& e) {
            thrown = std::string("ConsistencyError: ") + e.what();
        }
        std::fclose(f);
        sysFaultsClear();
        EXPECT_EQ(testing::internal::GetCapturedStderr() + thrown, c.err);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(testutil::readFile(db), shadow(c.after, c.ino2, c.gen2));
        EXPECT_EQ(gsiHashP[slot].updateMark, c.markAfter);
    }
    freeUpdateBuffers();
    pathIndexReset();
}

// Reports in database order through one window: the file ends as with plain
// reads, for a pread per window fill rather than per record. Assorted path
// lengths put records across the window's edges; one record is longer than
// ulineP, one longer than the window, and the last has no line feed.
TEST(RecordUpdate, ReadWindowMatchesPlainReads)
{
    // `nth`: the pread that fails; `failures`: the reports that fail by it.
    struct Case { const char* name; bool window; int nth; int failures; } cases[] = {
        {"window", true, 60, 0},
        {"no window", false, 60, 1}, // the 60th pread is reached without one
        {"window fill fails", true, 1, 1},
        {"read of a record past ulineP fails", true, 2, 1},
    };
    std::vector<offset_t> at;
    std::vector<std::string> paths;
    std::string text = kLead;
    for (unsigned i = 0; i < 900; ++i) {
        paths.push_back("/fs/" + std::string(i == 300 ? 10000 : i == 450 ? 70000 : i % 97, 'p') + std::to_string(i));
        at.push_back(static_cast<offset_t>(text.size()));
        text += shadowRecord(0x100 + i, "b", paths[i]);
    }
    text.pop_back();
    testutil::ScratchDir dir;
    const std::string db = dir.file("shadow");
    pathIndexReset(); // no index, no marks: every report reads its record
    ASSERT_TRUE(allocUpdateBuffers());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::writeFile(db, text);
        FILE* f = std::fopen(db.c_str(), "r+");
        std::vector<int> results;
        testing::internal::CaptureStderr();
        sysFailOn(SysCall::pread, c.nth, EIO);
        {
            std::optional<RecordReadWindow> window;
            if (c.window)
                window.emplace(f);
            for (offset_t offset : at)
                results.push_back(updateShadowPDR(f, offset, 0x0, UINT32_MAX));
        }
        sysFaultsClear();
        testing::internal::GetCapturedStderr();
        std::fclose(f);
        // A failed report leaves its record as it was; the unterminated last one is never rewritten.
        std::string want = kLead;
        for (size_t i = 0; i < paths.size(); ++i)
            want += shadowRecord(0x100 + i, results[i] == 0 && i + 1 < paths.size() ? "0" : "b", paths[i]);
        want.pop_back();
        EXPECT_EQ(std::count(results.begin(), results.end(), -1), c.failures);
        EXPECT_EQ(std::count(results.begin(), results.end(), 0), std::ssize(results) - c.failures);
        EXPECT_TRUE(testutil::readFile(db) == want);
    }
    freeUpdateBuffers();
}

// A report that reads a record rewritten earlier in the same window sees the
// new bytes; the fault on the second pread proves that they came from it.
TEST(RecordUpdate, ReadWindowSeesItsOwnWrites)
{
    // Each record ends as it began: the second report undoes the first.
    const std::pair<Flags, std::vector<int>> cases[] = {
        {{"b"}, {0x0, 0xb}}, {{"c", "b"}, {0x0, 0xb}}, {{"d", "0"}, {0xb, 0x0}}};
    testutil::ScratchDir dir;
    const std::string db = dir.file("shadow");
    pathIndexReset();
    ASSERT_TRUE(allocUpdateBuffers());
    for (const auto& [flags, reports] : cases) {
        SCOPED_TRACE(flags[0]);
        testutil::writeFile(db, shadow(flags, 0x20, 1));
        FILE* f = std::fopen(db.c_str(), "r+");
        testing::internal::CaptureStderr();
        sysFailOn(SysCall::pread, 2, EIO);
        {
            RecordReadWindow window(f);
            for (int state : reports)
                EXPECT_EQ(updateShadowPDR(f, static_cast<offset_t>(kLead.size()), state, UINT32_MAX), 0);
        }
        sysFaultsClear();
        testing::internal::GetCapturedStderr();
        std::fclose(f);
        EXPECT_EQ(testutil::readFile(db), shadow(flags, 0x20, 1));
    }
    freeUpdateBuffers();
}

} // namespace
