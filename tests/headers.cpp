// The precompiled header needs a source of its own to be made with.
#include "headers.h"
