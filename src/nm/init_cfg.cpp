#include "nm/init_cfg.h"
#include "nm/init_cfg_internal.h"
