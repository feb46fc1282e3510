#include "kest2.h"

extern "C" uint32_t zulKestGetVersion(void) { return KEST2_VERSION; }
