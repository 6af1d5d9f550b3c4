#include "nm/report_strategy.h"
