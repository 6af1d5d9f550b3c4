#include "nm/heartbeat.h"
