#include "transport/nm_sign.h"
