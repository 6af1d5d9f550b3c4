#include "remote/tunnel.h"
