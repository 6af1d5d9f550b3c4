#include "status/metrics.h"
