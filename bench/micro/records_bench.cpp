// Reading scan-list records: readPolicyRecord through a stream (in memory,
// and from a file with the program's sequential buffer), and the parse of a
// line already in memory. One iteration is one pass over the whole list;
// items/s is records per second.
#include "records/policy_record.h"
#include "sample_data.h"
#include "support/file_stream.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <unistd.h>

namespace {

// About 7 MB of text: more than the caches hold, as a real list is.
constexpr size_t kRecords = 50000;

const SampleList& sampleList()
{
    static const SampleList list = makeSampleList(kRecords, 20240306);
    return list;
}

struct ReaderBuffers {
    HeapBuf line, path, show;
    uint64_t ino = 0, gen = 0;
    char* filesetName = nullptr;
    char* hsmState = nullptr;
    unsigned int endOfFile = 0;
    int state = 0, escapedPath = 0;

    bool allocate()
    {
        return line.allocate(PDR_LINE_BUF_SIZE) && path.allocate(PDR_PATH_BUF_SIZE) && show.allocate(PDR_SHOW_BUF_SIZE);
    }

    int read(FILE* stream)
    {
        return readPolicyRecord(stream, &line.ptr, &line.size, &ino, &gen, &path.ptr, &path.size, &show.ptr,
                                &show.size, &filesetName, &hsmState, &endOfFile, &state, &escapedPath);
    }

    int parse(char* text, size_t len)
    {
        return parsePolicyRecordLine(text, len, static_cast<int>(len + 1), &ino, &gen, &path.ptr, &path.size,
                                     &show.ptr, &show.size, &filesetName, &hsmState, &state, &escapedPath);
    }

    // Whether the outputs are those of `rec`.
    bool holds(const SampleRecord& rec) const
    {
        return ino == rec.ino && rec.path == path.ptr && filesetName != nullptr && rec.fileset == filesetName
               && hsmState != nullptr && rec.hsmState == hsmState;
    }
};

enum class Source { Memory, File };

// Reads the whole list once, checking every record; the error text, or null.
const char* readAllChecked(FILE* stream, ReaderBuffers& buf)
{
    const SampleList& list = sampleList();
    for (const SampleRecord& rec : list.records) {
        if (buf.read(stream) != 0 || buf.endOfFile != 0)
            return "a record was not read";
        if (!buf.holds(rec))
            return "a record was read wrong";
    }
    if (buf.read(stream) != 0 || buf.endOfFile != 1)
        return "no end of file after the last record";
    return nullptr;
}

void BM_readPolicyRecord(benchmark::State& state, Source source)
{
    const SampleList& list = sampleList();
    std::string text = list.text;
    StdioFile file;
    if (source == Source::Memory) {
        file = StdioFile(fmemopen(text.data(), text.size(), "r"));
    } else {
        // The file goes away at the close; the page cache keeps its data.
        const char* dir = std::getenv("TMPDIR");
        std::string path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/quenby_micro.XXXXXX";
        int fd = mkstemp(path.data());
        bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        if (fd >= 0)
            close(fd);
        if (written)
            openSequential(file, path.c_str(), "r", "quenby_micro: cannot open %s (%d)\n");
        if (fd >= 0)
            unlink(path.c_str());
    }
    ReaderBuffers buf;
    if (!file || !buf.allocate()) {
        state.SkipWithError("cannot open the record stream");
        return;
    }
    if (const char* error = readAllChecked(file.get(), buf)) {
        state.SkipWithError(error);
        return;
    }

    for (auto _ : state) {
        std::rewind(file.get());
        size_t records = 0;
        uint64_t inoSum = 0;
        while (buf.read(file.get()) == 0 && buf.endOfFile == 0) {
            ++records;
            inoSum += buf.ino;
        }
        if (records != list.records.size() || inoSum != list.inoSum || buf.endOfFile != 1) {
            state.SkipWithError("the pass did not read every record");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * list.records.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * list.text.size()));
}
BENCHMARK_CAPTURE(BM_readPolicyRecord, fmemopen, Source::Memory)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_readPolicyRecord, tmpfile, Source::File)->Unit(benchmark::kMillisecond);

void BM_parsePolicyRecordLine(benchmark::State& state)
{
    const SampleList& list = sampleList();
    // Each line NUL-terminated, as the reader leaves it in its buffer.
    struct Span {
        size_t start, len;
    };
    std::string lines;
    std::vector<Span> spans;
    for (const SampleRecord& rec : list.records) {
        spans.push_back({lines.size(), rec.line.size()});
        lines += rec.line;
        lines += '\0';
    }
    ReaderBuffers buf;
    if (!buf.allocate()) {
        state.SkipWithError("cannot allocate the buffers");
        return;
    }
    for (size_t i = 0; i < spans.size(); ++i) {
        if (buf.parse(lines.data() + spans[i].start, spans[i].len) != 0 || !buf.holds(list.records[i])) {
            state.SkipWithError("a line was parsed wrong");
            return;
        }
    }

    for (auto _ : state) {
        uint64_t inoSum = 0;
        bool failed = false;
        for (const Span& span : spans) {
            failed |= buf.parse(lines.data() + span.start, span.len) != 0;
            inoSum += buf.ino;
        }
        if (failed || inoSum != list.inoSum) {
            state.SkipWithError("a line was not parsed");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * list.records.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * list.text.size()));
}
BENCHMARK(BM_parsePolicyRecordLine)->Unit(benchmark::kMillisecond);

} // namespace
