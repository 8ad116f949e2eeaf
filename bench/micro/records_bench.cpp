// Reading scan-list records with the record reader: from a file read here,
// from a file read ahead on a second thread, and the parse of a line
// already in memory. One iteration is one pass over the whole list;
// items/s is records per second (on the reading core for "here").
#include "records/record_reader.h"
#include "sample_data.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// About 30 MB of text: more than the caches hold, as a real list is.
constexpr size_t kRecords = 200000;

const SampleList& sampleList()
{
    static const SampleList list = makeSampleList(kRecords, 20240306);
    return list;
}

bool holds(const Record& rec, const SampleRecord& want)
{
    return rec.ino == want.ino && rec.path == want.path && rec.fileset == want.fileset
           && rec.hsmState == want.hsmState;
}

// The list in a file that is gone once its descriptor is closed; -1 on failure.
int listFile()
{
    const SampleList& list = sampleList();
    const char* dir = std::getenv("TMPDIR");
    std::string path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/quenby_micro.XXXXXX";
    int fd = mkstemp(path.data());
    if (fd < 0)
        return -1;
    unlink(path.c_str());
    if (write(fd, list.text.data(), list.text.size()) != static_cast<ssize_t>(list.text.size())) {
        close(fd);
        return -1;
    }
    return fd;
}

// One pass over the list in `fd`; the records read, or 0 when one was
// read wrong (checked only when `check`).
size_t readPass(int fd, bool ahead, bool check, uint64_t& inoSum)
{
    const SampleList& list = sampleList();
    LineSource source;
    if (lseek(fd, 0, SEEK_SET) != 0)
        return 0;
    source.attach(fd);
    RecordReader reader(source);
    if (ahead && !reader.readAhead())
        return 0;
    Record rec;
    size_t records = 0;
    while (reader.next(rec) == 0 && !reader.atEnd()) {
        if (check && (records >= list.records.size() || !holds(rec, list.records[records])))
            return 0;
        inoSum += rec.ino;
        ++records;
    }
    return records;
}

void BM_RecordReader(benchmark::State& state, bool ahead)
{
    const SampleList& list = sampleList();
    int fd = listFile();
    uint64_t inoSum = 0;
    if (fd < 0 || readPass(fd, ahead, true, inoSum) != list.records.size()) {
        state.SkipWithError("the list was not read right");
        if (fd >= 0)
            close(fd);
        return;
    }
    for (auto _ : state) {
        inoSum = 0;
        if (readPass(fd, ahead, false, inoSum) != list.records.size() || inoSum != list.inoSum) {
            state.SkipWithError("the pass did not read every record");
            break;
        }
    }
    close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * list.records.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * list.text.size()));
}
BENCHMARK_CAPTURE(BM_RecordReader, here, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_RecordReader, ahead, true)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_parseRecord(benchmark::State& state)
{
    const SampleList& list = sampleList();
    // Each line NUL-terminated, as the line source leaves it.
    std::string lines;
    std::vector<size_t> starts;
    for (const SampleRecord& rec : list.records) {
        starts.push_back(lines.size());
        lines += rec.line;
        lines += '\0';
    }
    const ReaderOptions options;
    for (auto _ : state) {
        uint64_t inoSum = 0;
        bool failed = false;
        for (size_t i = 0; i < starts.size(); ++i) {
            Record rec;
            rec.line = lines.data() + starts[i];
            rec.length = list.records[i].line.size();
            failed |= parseRecord(rec, PDR_LINE_BUF_SIZE, options, nullptr) != 0;
            inoSum += rec.ino;
        }
        if (failed || inoSum != list.inoSum) {
            state.SkipWithError("a line was not parsed");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * list.records.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * list.text.size()));
}
BENCHMARK(BM_parseRecord)->Unit(benchmark::kMillisecond);

} // namespace
