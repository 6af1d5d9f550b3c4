#include "runtime/log_file.h"
