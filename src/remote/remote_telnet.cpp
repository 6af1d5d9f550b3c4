#include "remote/remote_telnet.h"
