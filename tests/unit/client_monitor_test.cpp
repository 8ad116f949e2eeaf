// Client output lines: what reaches standard output, the result line, and the records' flags.
#include "bunch/client_monitor.h"

#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "test_util.h"

namespace {

// A summary block but for its last line: 15 lines, 16 with an encrypted line.
std::string summary(bool encrypted)
{
    std::string block = std::string("Total number of objects inspected: 4\n")
                        + (encrypted ? "Total number of objects encrypted: 0\n" : "")
                        + "Normal File--> 9 /fs/a b [Sent]\n"; // inside the block: only copied
    for (int i = 0; i < 12; ++i)
        block += "Total number of things " + std::to_string(i) + "\n";
    return block;
}

TEST(ClientMonitor, ReportedFilesReachTheirRecords)
{
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    const std::string paths[] = {"/fs/a/b", "/fs/a b", "/fs/x", "/fs/y"};
    const std::string sent = "Normal File-->       1,024 /fs/a/b [Sent]\n", gone = "ANS1345E No match '/fs/x'\n";
    const std::string revert = "quenby:QBS transaction failure. Reverting record [", none = "::EXECANDMONITOR::0::0::";
    const std::string one = "::EXECANDMONITOR::1::0::0::\n", db = dir.file("shadow"), output = dir.file("output");
    const std::string syncFailed =
        "quenby: execAndMonitor() sync of the shadow database failed (err=11)\n::EXECANDMONITOR::1::0::-1::\n";
    offset_t at[4];
    std::string text = testutil::kDbHeader;
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<offset_t>(text.size());
        text += testutil::record({.ino = 0x20u + i, .flag = std::string(1, "bbe0"[i]), .path = paths[i]});
    }
    char outside[96];
    std::snprintf(outside, sizeof outside, "quenby:execAndMonitor()backup /fs/a/b outside range [%llx - %llx]\n",
                  static_cast<unsigned long long>(at[1]), static_cast<unsigned long long>(at[3]));
    // `client`: what the client prints, unless `command` replaces it ("-": none at all);
    // `flags`: the records' flags after; `first`: the record that opens the range.
    struct Case {
        std::string client, out, flags, err = "", command = ""; int result = 0; SysCall fault = SysCall::count_;
        bool expire = false, oldFormat = false; int first = 0, timeout = 0; bool pwrite = false;
    } cases[] = {
        {sent, one, "0be0"},
        {"Normal File--> 9 /fs/a/b [Unchanged]\n", one, "0be0"},
        {sent + "Normal File--> 9 /fs/a/b  ** Unsuccessful **\n", "::EXECANDMONITOR::2::0::0::\n", "bbe0",
         revert + "/fs/a/b]\n"},
        {"Normal File--> 9 /fs/a b [Sent]\nANS1228E Sending of object '/fs/a b' failed.\n"
         "ANS1228E Sending of object '/fs/zz' failed.\n",
         "quenby:execAndMonitor() unrequested backup path:/fs/zz\n::EXECANDMONITOR::2::2::0::\n", "bbe0",
         revert + "/fs/a b]\n"},
        {gone, one, "bbd0", "", "", 0, {}, true},
        {"ANS1898I ***** Processed 500 files *****\nplain chatter\n",
         "ANS1898I ***** Processed 500 files *****\n" + none + "0::\n", "bbe0"},
        {"Normal File--> 9 /fs/a/b\n", "quenby:QBS output unrecognized:Normal File--> 9 /fs/a/b\n" + none + "0::\n",
         "bbe0"},
        {sent, outside + one, "0be0", "", "", 0, {}, false, false, 1},
        {gone + "Normal File--> 1 /fs/zz [Sent]\n", none + "0::\n", "bbe0", "", "", 0, {}, true, true},
        {summary(false) + sent + "after\n", summary(false) + sent + one, "0be0"},
        {summary(true) + sent + "after\n", summary(true) + sent + one, "0be0"},
        {std::string(1100000, 'x') + "\n" + sent, one, "0be0"}, // a huge line
        {"", "quenby: execAndMonitor() backup command close returned 1024\n" + none + "1024::\n", "bbe0", "", "exit 4",
         1024},
        {"", "quenby: execAndMonitor() backup command true could not be run\n" + none + "-1::\n", "bbe0", "", "true",
         -1, SysCall::popen},
        {"", "quenby:execAndMonitor() null exec cmd\n" + none + "-1::\n", "bbe0", "", "-", -1},
        // Rewrites that a crash could still lose, mapped or written: the run is no success.
        {sent, syncFailed, "0be0", "", "", -1, SysCall::msync},
        {sent, syncFailed, "0be0", "", "", -1, SysCall::fsync, false, false, 0, 0, true},
        {sent, one, "0be0", "", "", 0, {}, false, false, 0, 30}, // with a time limit
        {"", "quenby: execAndMonitor() backup command true could not be run\n" + none + "-1::\n", "bbe0", "", "true",
         -1, SysCall::fork, false, false, 0, 30},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.client.substr(0, 60) + c.command);
        testutil::writeFile(db, text);
        testutil::writeFile(output, c.client);
        PathIndex index(100);
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(index.insert(std::string(paths[i]).data(), at[i]), 0);
        RecordUpdater updater(c.oldFormat, {.positioned = c.pwrite});
        if (c.fault != SysCall::count_)
            sysFailOn(c.fault, 1, EAGAIN);
        const std::string command = c.command.empty() ? "cat '" + output + "'" : c.command;
        FILE* f = std::fopen(db.c_str(), "r+");
        testing::internal::CaptureStdout();
        std::string err = testutil::stderrOf([&] {
            EXPECT_EQ(execAndMonitor(command == "-" ? nullptr : command.c_str(), index, updater, f,
                                     c.expire ? "expire" : "backup", c.expire ? 0xd : 0x0, at[c.first], at[3],
                                     c.timeout),
                      c.result);
        });
        std::fclose(f);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
        EXPECT_EQ(err, c.err);
        std::string after = testutil::readFile(db), flags;
        for (offset_t start : at)
            flags += after[static_cast<size_t>(start) + std::string("0:0:0000000000000020:1:0:0:0:").size()];
        EXPECT_EQ(flags, c.flags);
    }
}

} // namespace
