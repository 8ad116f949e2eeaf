// The backup client's output as the monitor reads it, against an index of
// a few paths and a small shadow database in a scratch file.
#include "bunch/client_monitor.h"
#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "fuzz_util.h"
#include "support/consistency.h"

#include <cstring>

namespace {

const char kShadow[] =
    "0:0:0000000000000010:1:0:0:0:c:5!/fs/a:6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 "
    "root resdnt\n"
    "0:0:0000000000000010:1:0:0:0:b:5!/fs/a:6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 43 "
    "root resdnt\n"
    "0:0:0000000000000020:1:0:0:0:e:7!/fs/b c:6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 "
    "root resdnt\n";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string db = fuzz::writeScratch("shadow", reinterpret_cast<const uint8_t*>(kShadow), sizeof kShadow - 1);
    FILE* shadow = std::fopen(db.c_str(), "r+");
    if (shadow == nullptr)
        return 0;
    // Small pieces and a small line limit, so that cut lines are tried too.
    fuzz::PieceReader input{data, size, 1 + size % 13};
    LineSource output({.blockSize = 16, .keepUnterminatedLine = true, .maxLine = 64});
    output.attachReader(&fuzz::PieceReader::read, &input);
    PathIndex index(100);
    RecordUpdater updater;
    char a[] = "/fs/a", b[] = "/fs/b c";
    index.insert(a, 1);
    index.insert(b, 250);
    MonitorCounts counts;
    try {
        monitorClientOutput(output, index, updater, shadow, "backup", 0, 1, 250, counts);
    } catch (const ConsistencyError&) {
        // A broken pair stops the run; that is the program's answer.
    }
    std::fclose(shadow);
    return 0;
}
