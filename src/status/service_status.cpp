#include "status/service_status.h"
