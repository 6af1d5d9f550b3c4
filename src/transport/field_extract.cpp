#include "transport/field_extract.h"
