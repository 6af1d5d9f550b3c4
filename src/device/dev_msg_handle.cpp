#include "device/dev_msg_handle.h"
