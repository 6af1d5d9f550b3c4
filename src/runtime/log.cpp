#include "runtime/log.h"
