// The server query reader and the sorted index reader on any input.
#include "fuzz_util.h"
#include "rebuild/index_query.h"
#include "support/file_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    {
        fuzz::PieceReader input{data, size, 5};
        LineSource source({.blockSize = 8});
        source.attachReader(&fuzz::PieceReader::read, &input);
        queryRecord rec{};
        QueryPathRoom room{4};
        unsigned int eof = 0;
        for (int i = 0; i < 64 && !eof; ++i)
            if (readQueryRecord(source, room, &rec, &eof) != 0)
                break;
    }
    fuzz::PieceReader input{data, size, 5};
    LineSource source({.blockSize = 8});
    source.attachReader(&fuzz::PieceReader::read, &input);
    IndexLine line;
    unsigned int eof = 0;
    for (int i = 0; i < 64 && !eof; ++i)
        if (readIndexFile(source, &line, &eof) != 0)
            break;
    return 0;
}
