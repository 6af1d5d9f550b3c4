#include "runtime/plugin_config.h"
