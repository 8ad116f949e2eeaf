// Header line 1 of a shadow database, parsed and read from a line source.
#include "fuzz_util.h"
#include "records/shadow_header.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ShadowHeader header;
    std::string text = fuzz::inputText(data, size);
    parseShadowHeader(text.c_str(), &header);
    peekShadowHeaderVersion(text.c_str());
    fuzz::PieceReader input{data, size, 7};
    LineSource source({.blockSize = 16});
    source.attachReader(&fuzz::PieceReader::read, &input);
    readShadowHeader(source, &header);
    return 0;
}
