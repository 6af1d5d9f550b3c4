#include "nm/activation.h"
