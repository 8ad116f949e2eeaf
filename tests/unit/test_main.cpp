#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv)
{
    // The sub-commands read these; a developer's shell must not leak into tests.
    for (const char* name : {"DEBUGquenby", "KESTREL_QBSC_INCR_SUPPORTED", "KESTREL_SHADOW_FORMAT",
                             "KESTREL_BACKUPDIR", "KESTREL_DO_BACKUP_ONLY"})
        unsetenv(name);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
