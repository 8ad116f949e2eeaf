#include "support/debug_level.h"

int quenby_debug = 0;
