// The server query reader and the sorted index reader on any input.
#include "fuzz_util.h"
#include "rebuild/index_query.h"
#include "support/file_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (FILE* in = fuzz::inputStream(data, size)) {
        HeapBuf line, path;
        if (line.allocate(8) && path.allocate(4)) {
            queryRecord rec{};
            unsigned int eof = 0;
            for (int i = 0; i < 64 && !eof; ++i)
                if (readQueryRecord(in, &line.ptr, &line.size, &path.ptr, &path.size, &rec, &eof) != 0)
                    break;
        }
        std::fclose(in);
    }
    if (FILE* in = fuzz::inputStream(data, size)) {
        HeapBuf path;
        if (path.allocate(4)) {
            long long offset = 0;
            unsigned int eof = 0;
            for (int i = 0; i < 64 && !eof; ++i)
                if (readIndexFile(in, &path.ptr, &path.size, &offset, &eof) != 0)
                    break;
        }
        std::fclose(in);
    }
    return 0;
}
