#include "transport/tls.h"
