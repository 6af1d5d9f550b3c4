#include "runtime/work_thread.h"
