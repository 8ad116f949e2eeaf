// A bunch file split into list files and registered in the path index; the
// first byte picks the path to remove, quoting and the old format.
#include "bunch/bunch_list.h"
#include "bunch/path_index.h"
#include "fuzz_util.h"
#include "support/consistency.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t mode = data[0];
    std::string bunch = fuzz::writeScratch("bunch", data + 1, size - 1);
    std::string dir = fuzz::scratchDir();
    std::string chg = dir + "/chg", exp = dir + "/exp", upd = dir + "/upd";
    const bool quoted = !(mode & 1);
    const char* removePath = (mode & 2) ? "/fs" : (mode & 4) ? "NONE" : nullptr;
    const bool oldFormat = mode & 8;
    PathIndex index(100);
    offset_t low = 0, high = 0;
    try {
        parseBackupRecords(bunch.c_str(), oldFormat ? nullptr : chg.c_str(), exp.c_str(),
                           oldFormat ? nullptr : upd.c_str(), removePath, &low, &high, index, quoted);
    } catch (const ConsistencyError&) {
        // An empty path or offset 0: reported as a broken condition.
    }
    return 0;
}
