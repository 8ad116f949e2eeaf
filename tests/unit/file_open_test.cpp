// Error numbers in the fixed numbering; streams opened with close-on-exec.
#include "support/file_open.h"

#include "test_util.h"

#include <fcntl.h>
#include <map>

namespace {

TEST(ErrnoToPortable, WholeRangeMatchesTheFixedNumberingAlsoThroughErrno)
{
    // Written out independently of the table in the code.
    const std::map<int, int> remapped = {
        {35, 45}, {36, 86}, {37, 49}, {38, 109}, {39, 87}, {40, 85}, {42, 35}, {43, 36}, {44, 37}, {45, 38}, {46, 39},
        {47, 40}, {48, 41}, {49, 42}, {50, 43}, {51, 44}, {60, 123}, {61, 122}, {62, 119}, {63, 118}, {66, 93},
        {67, 126}, {71, 121}, {72, 125}, {74, 120}, {75, 127}, {84, 116}, {85, 82}, {87, 84}, {88, 57}, {89, 58},
        {90, 59}, {91, 60}, {92, 61}, {93, 62}, {94, 63}, {95, 64}, {96, 65}, {97, 66}, {98, 67}, {99, 68}, {100, 69},
        {101, 70}, {102, 71}, {103, 72}, {104, 73}, {105, 74}, {106, 75}, {107, 76}, {108, 77}, {109, 115}, {110, 78},
        {111, 79}, {112, 80}, {113, 81}, {114, 56}, {115, 55}, {116, 52}, {122, 88}, {125, 117},
    };
    for (int e = -5; e <= 200; ++e) {
        auto it = remapped.find(e);
        int expected = e <= 34 ? e : it != remapped.end() ? it->second : e + 1000;
        errno = e;
        EXPECT_EQ(std::make_tuple(errnoToPortable(e), portableErrno(), portableErrnoNonZero()),
                  std::make_tuple(expected, expected, expected == 0 ? -1 : expected)) << "errno " << e;
        EXPECT_EQ(errno, e) << "left unchanged";
    }
    EXPECT_EQ(errnoToPortable(100000), 101000);
    EXPECT_EQ(errnoToPortable(-100000), -100000);
}

TEST(CxiFopen, CloseOnExecAndFailures)
{
    testutil::ScratchDir dir;
    const std::string path = dir.file("f"), tooLong = dir.file(std::string(300, 'n')); // ENAMETOOLONG is remapped
    testutil::writeFile(path, "data\n");
    const struct {
        SysCall fault; int err, code; bool tooLong = false;
    } rows[] = {
        {SysCall::count_, 0, 0}, {SysCall::fcntl, EBADF, 9},
        {SysCall::fopen, 0, -1}, // a failure never reads as success
        {SysCall::fopen, EMFILE, 24}, {SysCall::count_, 0, 86, true}};
    for (const auto& r : rows) {
        testutil::GlobalsGuard guard;
        if (r.fault != SysCall::count_)
            sysFailOn(r.fault, 1, r.err);
        FILE* stream = reinterpret_cast<FILE*>(0x1); // must be cleared on a failure
        EXPECT_EQ(openFile((r.tooLong ? tooLong : path).c_str(), "r", &stream), r.code);
        EXPECT_EQ(stream != nullptr, r.code == 0) << r.code;
        if (stream != nullptr) {
            EXPECT_NE(fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC, 0);
            fclose(stream);
        }
    }
}

} // namespace
