#include "nm/nm_msg.h"
