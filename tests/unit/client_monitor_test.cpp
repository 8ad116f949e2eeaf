#include "test_util.h"
