#include "device/dev_msg_send.h"
