// Header line 1 of a shadow database, parsed and read from a stream.
#include "fuzz_util.h"
#include "records/shadow_header.h"
#include "support/file_stream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ShadowHeader header;
    std::string text = fuzz::inputText(data, size);
    parseShadowHeader(text.c_str(), &header);
    peekShadowHeaderVersion(text.c_str());
    if (FILE* in = fuzz::inputStream(data, size)) {
        HeapBuf line;
        if (line.allocate(16))
            readShadowHeader(in, &line.ptr, &line.size, &header);
        std::fclose(in);
    }
    return 0;
}
