#include "runtime/timer.h"
