// Records rewritten in place: whole files compared, so touching anything but a flag shows.
#include "bunch/record_update.h"

#include "records/record_edit.h"
#include "support/consistency.h"
#include "test_util.h"

#include <functional>

namespace {

using Flags = std::vector<std::string>;
using testutil::record;
const std::string kLead = testutil::kDbHeader + record({.ino = 0x10, .flag = "e", .path = "/fs/lead"});

// The tested record (and its twin) between two neighbours.
std::string shadow(const Flags& flags, unsigned ino2 = 0x20, unsigned gen2 = 1)
{
    return kLead + record({.ino = 0x20, .flag = flags[0], .path = "/fs/old"})
           + (flags.size() > 1 ? record({.ino = ino2, .gen = gen2, .flag = flags[1], .path = "/fs/new"}) : "")
           + record({.ino = 0x30, .flag = "b", .path = "/fs/tail"});
}

TEST(ChangePDRState, RewritesOnlyTheFlagField)
{
    const std::tuple<std::string, int, int, std::string, std::string> rows[] = { // flag, state, result, after, rest
        {"0", 9, 1, "0", "5!a:6!p;3!abc\n"}, {"0", 0x10, 1, "0", "5!a:6!p;3!abc\n"},
        {"0", 0xf, 0, "f", "5!a:6!p;3!abc\n"}, {"0000000b", PDR_NORMAL, 0, "00000000", "5!a:6!p;3!abc\n"},
        {"1C", PDR_DELETE, 0, "0d", "5!a:6!p;3!abc\n"},
        {"0", PDR_BACKUP, 0, "b", "9!x:1:2!y!z\n"}, // only the first "!" counts
        {"0", PDR_BACKUP, 2, "0", "5 a/b/c\n"}};
    for (const auto& [flag, state, rc, after, rest] : rows) {
        std::string line = "0:0:1:1:0:0:0:" + flag + ":" + rest;
        EXPECT_EQ(changePDRState(line.data(), state), rc) << flag << " " << state;
        EXPECT_EQ(std::string(line.c_str()), "0:0:1:1:0:0:0:" + after + ":" + rest);
    }
}

// Runs the reports of `body` on `text` in a scratch file: the file after, and what reached stderr.
std::pair<std::string, std::string> updated(const std::string& text, const std::function<void(FILE*)>& body)
{
    testutil::ScratchDir dir;
    testutil::writeFile(dir.file("shadow"), text);
    FILE* f = std::fopen(dir.file("shadow").c_str(), "r+");
    std::string err = testutil::stderrOf([&] { body(f); });
    sysFaultsClear();
    std::fclose(f);
    return {testutil::readFile(dir.file("shadow")), err};
}

TEST(RecordUpdate, ReportsAndFailuresRewriteOnlyFlags)
{
    const std::string revert = "quenby:QBS transaction failure. Reverting record [/fs/";
    const std::string eio = " failed: Input/output error\n", read2 = "updateShadowPDR() read2 failed code ";
    const std::string put = "updateShadowPDR() fputs", broken = "ConsistencyError: ";
    const std::string flagRule = broken + "newState == 0x0? ((uflag == 0xb) || (uflag == 0xa)): (uflag == 0x0)";
    const SysCall R = SysCall::pread, W = SysCall::pwrite;
    // `outside`: the report carries no mark. A read fault on an unchanged record proves it was not read.
    struct Case {
        const char* name; Flags before; int newState; uint32_t mark; Flags after; uint32_t markAfter;
        std::string err; int result = 0; SysCall fault = SysCall::count_; int nth = 1; bool outside = false;
        unsigned ino2 = 0x20, gen2 = 1; bool atEnd = false;
    } cases[] = {
        {"done CHANGE+BACKUP", {"c", "b"}, 0x0, 0, {"d", "0"}, 1, ""},
        {"done CHANGE+METACH", {"c", "a"}, 0x0, 0, {"d", "0"}, 1, ""}, {"done NORMAL", {"0"}, 0x0, 0, {"0"}, 0, ""},
        {"done DELETE after a failure", {"d"}, 0x0, 4, {"0"}, 1, ""},
        {"done wide flag", {"0000000b"}, 0x0, 0, {"00000000"}, 1, ""}, {"expired", {"e"}, 0xd, 0, {"d"}, 2, ""},
        {"failed DELETE pair", {"d", "0"}, 0xb, 1, {"c", "b"}, 4, revert + "new]\n"},
        {"failed BACKUP", {"b"}, 0xb, 1, {"b"}, 1, ""}, {"failed NORMAL", {"0"}, 0xb, 1, {"b"}, 4, revert + "old]\n"},
        {"done again", {"b"}, 0x0, 1, {"b"}, 1, "", 0, R}, {"expired again", {"e"}, 0xd, 2, {"e"}, 2, "", 0, R},
        {"failed again", {"0"}, 0xb, 4, {"0"}, 4, "", 0, R}, {"failed, never done", {"0"}, 0xb, 0, {"0"}, 0, "", 0, R},
        {"read fails", {"b"}, 0x0, 0, {"b"}, 0, read2 + "-1\n", -1, R},
        {"write fails", {"b"}, 0x0, 0, {"b"}, 0, put + "2" + eio, -1, W},
        {"pair write 1 fails", {"c", "b"}, 0x0, 0, {"c", "b"}, 0, put + "1" + eio, -1, W},
        {"pair write 2 fails", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, put + "2" + eio, -1, W, 2},
        {"pair of two files", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, broken + "uino == preino", 0, {}, 1, 0, 0x21},
        {"pair of two generations", {"c", "b"}, 0x0, 0, {"d", "b"}, 0, broken + "ugen == pregen", 0, {}, 1, 0, 0x20, 2},
        {"pair with EXPIRE twin", {"c", "e"}, 0x0, 0, {"d", "e"}, 0, flagRule},
        {"reverted pair with BACKUP twin", {"d", "b"}, 0xb, 1, {"c", "b"}, 1, flagRule},
        {"offset at the end", {"b"}, 0x0, 0, {"b"}, 0, read2 + "0\n", 0, {}, 1, 0, 0x20, 1, true},
        // Outside the index there is no mark, so even a revert of a record never done is applied.
        {"no mark", {"0"}, 0xb, 0, {"b"}, 0, revert + "old]\n", 0, {}, 1, true},
    };
    // Mapped, a read or write fault meets the fallback to pread and pwrite, which keeps every message.
    for (const Case& c : cases)
        for (bool positioned : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (positioned ? " with pwrite" : " mapped"));
            RecordUpdater updater(false, {.positioned = positioned});
            const std::string text = shadow(c.before, c.ino2, c.gen2);
            UpdateMark mark = static_cast<UpdateMark>(c.mark);
            auto [after, err] = updated(text, [&](FILE* f) {
                if (c.fault != SysCall::count_)
                    sysFailOn(c.fault, c.nth, EIO);
                if (c.fault != SysCall::count_ && !positioned)
                    sysFailOn(SysCall::mmap, 1, EIO);
                try {
                    EXPECT_EQ(updater.update(f, static_cast<offset_t>(c.atEnd ? text.size() : kLead.size()), c.newState,
                                             c.outside ? nullptr : &mark),
                              c.result);
                } catch (const ConsistencyError& e) {
                    std::fprintf(stderr, "%s%s", broken.c_str(), e.what());
                }
            });
            EXPECT_EQ(err, c.err);
            EXPECT_EQ(after, shadow(c.after, c.ino2, c.gen2));
            EXPECT_EQ(mark, c.markAfter);
        }
}

// Records across the read window's edges, longer than the line buffer or the window, and mapped with the pages
// behind let go of, also past the slice's end; the last, cut, is never rewritten.
TEST(RecordUpdate, ReadWindowAndMappingMatchPlainReads)
{
    std::vector<offset_t> at;
    std::string text = kLead, want = kLead;
    for (unsigned i = 0; i < 900; ++i) {
        const std::string path = "/fs/" + std::string(i == 300 ? 10000 : i == 450 ? 70000 : i % 97, 'p');
        at.push_back(static_cast<offset_t>(text.size()));
        text += record({.ino = 0x100 + i, .flag = "b", .path = path + std::to_string(i)});
        want += record({.ino = 0x100 + i, .flag = i < 899 ? "0" : "b", .path = path + std::to_string(i)});
    }
    text.pop_back();
    want.pop_back();
    // Mapped to the end of the file, and mapped as a slice from the second record to the third that grows.
    for (WriteOptions write : {WriteOptions{.positioned = true}, WriteOptions{.residentBytes = 4096},
                               WriteOptions{.residentBytes = 4096, .sliceFirst = at[1], .sliceLast = at[2]}}) {
        RecordUpdater updater(false, write); // no marks: every report reads
        EXPECT_TRUE(updated(text, [&](FILE* f) {
            RecordReadWindow window(updater);
            for (offset_t offset : at)
                EXPECT_EQ(updater.update(f, offset, 0x0, nullptr), 0);
        }).first == want) << write.positioned << write.sliceLast;
    }
}

} // namespace
