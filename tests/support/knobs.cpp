#include "knobs.h"
