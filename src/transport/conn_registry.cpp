#include "transport/conn_registry.h"
