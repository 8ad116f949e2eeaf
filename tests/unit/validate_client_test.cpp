// Option lines split in place, the copy of the node's options and its
// failure, and the per-line trace.
#include "clientopts/validate_client.h"

#include "test_util.h"

#include <cerrno>
#include <memory>
#include <optional>

namespace {

using Text = std::optional<std::string>;

Text text(const char* p)
{
    return p == nullptr ? std::nullopt : Text(p);
}

// A read stream over `content`, which must outlive it.
std::unique_ptr<FILE, int (*)(FILE*)> input(std::string& content)
{
    return {fmemopen(content.data(), content.size(), "r"), std::fclose};
}

TEST(ParseQBSOptionLine, SplitsNameAndValue)
{
    const struct {
        std::string line;
        Text name, value;
    } rows[] = {
        {"   QUOTESARELITERAL: YES\n", "QUOTESARELITERAL", "YES"},
        {"SKIPACL :YES\n", "SKIPACL ", "YES"},
        {"Server:  host:1500: x \n", "Server", "host:1500: x "},
        {" \t \n", std::nullopt, std::nullopt},
        {"", std::nullopt, std::nullopt},
        {"Press 'Q' to quit\n", "Press 'Q' to quit", std::nullopt},
        {":YES", "", "YES"},
        {"  : x", "", "x"},
        {"UPDATECTIME: \t \n", "UPDATECTIME", std::nullopt},
        {"\tTESTFLAGS:\tQUOTESARELITERAL\t\n", "TESTFLAGS", "QUOTESARELITERAL\t"},
    };
    for (const auto& row : rows) {
        std::string line = row.line;
        char *name = line.data(), *value = line.data();
        parseQBSOptionLine(line.data(), &name, &value);
        EXPECT_EQ(text(name), row.name) << "[" << row.line << "]";
        EXPECT_EQ(text(value), row.value) << "[" << row.line << "]";
    }
}

TEST(ParseQBSOptions, CopyResultIsTheLastWrite)
{
    const std::string options = "SKIPACL: YES\nnote\nUPDATECTIME:YES\n";
    const struct {
        int failNth; // 0: no fault
        bool negative;
        std::string copied;
    } rows[] = {
        {0, false, "SKIPACL: YES\nUPDATECTIME: YES\n"},
        {1, false, "UPDATECTIME: YES\n"},
        {2, true, "SKIPACL: YES\n"},
    };
    for (const auto& row : rows) {
        testutil::GlobalsGuard guard;
        testutil::ScratchDir dir;
        std::string text = options;
        auto in = input(text);
        ASSERT_NE(in, nullptr);
        FILE* copy = std::fopen(dir.file("copy").c_str(), "w");
        ASSERT_NE(copy, nullptr);
        if (row.failNth != 0)
            sysFailOn(SysCall::fwrite, row.failNth, ENOSPC);
        QBSUserOption opt{};
        int rc = parseQBSOptions(in.get(), &opt, copy);
        std::fclose(copy);
        EXPECT_EQ(rc < 0, row.negative) << "fault " << row.failNth << " rc " << rc;
        EXPECT_EQ(testutil::readFile(dir.file("copy")), row.copied) << "fault " << row.failNth;
        // A failed copy does not stop the parse.
        EXPECT_EQ(opt.bSkipacl + opt.bUpdatectime, 2) << "fault " << row.failNth;
    }
}

TEST(ParseQBSOptions, TracesEveryLineAboveLevelThree)
{
    for (int level : {3, 4}) {
        testutil::GlobalsGuard guard;
        quenby_debug = level;
        std::string text = "SKIPACL: YES\n  \nno colon\n";
        auto in = input(text);
        ASSERT_NE(in, nullptr);
        QBSUserOption opt{};
        testing::internal::CaptureStderr();
        EXPECT_EQ(parseQBSOptions(in.get(), &opt, nullptr), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  level > 3 ? "quenby:QBS:SKIPACL: YES\nquenby:QBS:  \nquenby:QBS:no colon\n" : "");
    }
}

} // namespace
