// Client runs through the shell: what reaches standard output, the counts
// of the result line, and the records that the reported files end up in.
#include "bunch/client_monitor.h"

#include "bunch/bunch_list.h"
#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "test_util.h"

#include <cerrno>

std::string shadowRecord(unsigned ino, const std::string& flag, const std::string& path, unsigned gen = 1);

namespace {

// A shell command that prints `text` as it stands.
std::string printer(const std::string& text)
{
    std::string cmd = "printf '";
    for (char ch : text)
        cmd += ch == '\n' ? "\\n" : ch == '\'' ? "\\047" : ch == '\\' ? "\\\\" : ch == '%' ? "%%" : std::string(1, ch);
    return cmd + "'";
}

// A summary block of 15 lines (16 with an encrypted line) but for its last line.
std::string summary(bool encrypted)
{
    std::string block = "Total number of objects inspected:        4\n";
    if (encrypted)
        block += "Total number of objects encrypted:        0\n";
    block += "Normal File--> 9 /fs/a b [Sent]\n"; // inside the block: only copied
    for (int i = 0; i < 12; ++i)
        block += "Total number of things " + std::to_string(i) + "\n";
    return block;
}

TEST(ClientMonitor, ReportedFilesReachTheirRecords)
{
    const std::string paths[] = {"/fs/a/b", "/fs/a b", "/fs/x", "/fs/y"};
    const std::string sent = "Normal File-->       1,024 /fs/a/b [Sent]\n", one = "::EXECANDMONITOR::1::0::0::\n";
    const std::string none = "::EXECANDMONITOR::0::0::0::\n", gone = "ANS1345E No objects on server match '/fs/x'\n";
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    const std::string db = dir.file("shadow");
    offset_t at[4];
    std::string text = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/mnt/cluster/fs1:kestrel:1:Mon Nov 23 08:20:00 2026\n";
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<offset_t>(text.size());
        text += shadowRecord(0x20 + i, std::string(1, "bbe0"[i]), paths[i]);
    }
    char outside[96];
    std::snprintf(outside, sizeof outside, "quenby:execAndMonitor()backup /fs/a/b outside range [%llx - %llx]\n",
                  static_cast<unsigned long long>(at[1]), static_cast<unsigned long long>(at[3]));
    const std::string failed = "::EXECANDMONITOR::0::0::-1::\n";
    // An empty command stands for none at all; `first`: the record that opens the range.
    struct Case {
        const char* name; std::string command, out, flags, errHas = ""; bool expire = false, oldFormat = false;
        int first = 0, result = 0; SysCall fault = SysCall::count_; int timeout = 0;
    } cases[] = {
        {"sent", printer(sent), one, "0be0"},
        {"unchanged", printer("Normal File--> 9 /fs/a/b [Unchanged]\n"), one, "0be0"},
        {"unsuccessful after sent", printer(sent + "Normal File--> 9 /fs/a/b  ** Unsuccessful **\n"),
         "::EXECANDMONITOR::2::0::0::\n", "bbe0", "Reverting record [/fs/a/b]"},
        {"failed objects",
         printer("Normal File--> 9 /fs/a b [Sent]\nANS1228E Sending of object '/fs/a b' failed.\n"
                 "ANS1228E Sending of object '/fs/zz' failed.\n"),
         "quenby:execAndMonitor() unrequested backup path:/fs/zz\n::EXECANDMONITOR::2::2::0::\n", "bbe0",
         "Reverting record [/fs/a b]"},
        {"expired already", printer(gone), one, "bbd0", "", true},
        {"other messages", printer("ANS1898I ***** Processed 500 files *****\nplain chatter\n"),
         "ANS1898I ***** Processed 500 files *****\n" + none, "bbe0"},
        {"no end pattern", printer("Normal File--> 9 /fs/a/b\n"),
         "quenby:QBS output unrecognized:Normal File--> 9 /fs/a/b\n" + none, "bbe0"},
        {"outside range", printer(sent), outside + one, "0be0", "", false, false, 1},
        {"old format", printer(gone + "Normal File--> 1 /fs/zz [Sent]\n"), none, "bbe0", "", true, true},
        {"summary", printer(summary(false) + sent + "after the block\n"), summary(false) + sent + one, "0be0"},
        {"summary, encrypted", printer(summary(true) + sent + "after\n"), summary(true) + sent + one, "0be0"},
        {"huge line", "head -c 1100000 /dev/zero | tr '\\000' x; " + printer("\n" + sent), one, "0be0"},
        {"exit code", "exit 4",
         "quenby: execAndMonitor() backup command close returned 1024\n::EXECANDMONITOR::0::0::1024::\n", "bbe0", "",
         false, false, 0, 1024},
        {"cannot start", "true", "quenby: execAndMonitor() backup command true could not be run\n" + failed, "bbe0",
         "", false, false, 0, -1, SysCall::popen},
        {"no command", "", "quenby:execAndMonitor() null exec cmd\n" + failed, "bbe0", "", false, false, 0, -1},
        // Rewrites that a crash could still lose: the run is no success.
        {"rewrites not durable", printer(sent),
         "quenby: execAndMonitor() sync of the shadow database failed (err=11)\n::EXECANDMONITOR::1::0::-1::\n", "0be0",
         "", false, false, 0, -1, SysCall::fsync},
        {"with a time limit", printer(sent) + "; exit 4",
         "quenby: execAndMonitor() backup command close returned 1024\n::EXECANDMONITOR::1::0::1024::\n", "0be0", "",
         false, false, 0, 1024, SysCall::count_, 30},
        {"cannot start with a time limit", "true", "quenby: execAndMonitor() backup command true could not be run\n"
         + failed, "bbe0", "", false, false, 0, -1, SysCall::fork, 30},
    };
    ASSERT_TRUE(allocUpdateBuffers());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::writeFile(db, text);
        pathIndexReset();
        gsiCount = 100;
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(gsi_insert(std::string(paths[i]).data(), at[i]), 0);
        expireOldFormat = c.oldFormat ? 1 : 0;
        if (c.fault != SysCall::count_)
            sysFailOn(c.fault, 1, EAGAIN);
        FILE* f = std::fopen(db.c_str(), "r+");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(execAndMonitor(c.command.empty() ? nullptr : c.command.c_str(), f, c.expire ? "expire" : "backup",
                                 c.expire ? 0xd : 0x0, at[c.first], at[3], c.timeout),
                  c.result);
        std::fclose(f);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
        std::string err = testing::internal::GetCapturedStderr(), after = testutil::readFile(db), flags;
        EXPECT_NE(err.find(c.errHas), std::string::npos) << err;
        for (offset_t start : at)
            flags += after[static_cast<size_t>(start) + std::string("0:0:0000000000000020:1:0:0:0:").size()];
        EXPECT_EQ(flags, c.flags);
    }
    freeUpdateBuffers();
    pathIndexReset();
    expireOldFormat = 0;
}

} // namespace
