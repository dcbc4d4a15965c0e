#include <stdlib.h>

#include "host/host.h"

bool hostIsMultiByteLead(int) { return false; }

void hostFree(void* p) { ::free(p); }
