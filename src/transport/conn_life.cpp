#include "transport/conn_life.h"
