#include "nm/device_init.h"
