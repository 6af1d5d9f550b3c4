#include "runtime/file_util.h"
