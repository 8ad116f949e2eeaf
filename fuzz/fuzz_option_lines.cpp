// The client option splitter and parser on any input.
#include "clientopts/validate_client.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string line = fuzz::inputText(data, size);
    char* name = nullptr;
    char* value = nullptr;
    parseQBSOptionLine(line.data(), &name, &value);
    if (FILE* in = fuzz::inputStream(data, size)) {
        QBSUserOption opt{};
        FILE* copy = std::fopen("/dev/null", "w");
        parseQBSOptions(in, &opt, copy);
        if (copy != nullptr)
            std::fclose(copy);
        std::fclose(in);
    }
    return 0;
}
