#include "transport/socket.h"
