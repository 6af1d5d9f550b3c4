#include "device/dev_msg_recv.h"
