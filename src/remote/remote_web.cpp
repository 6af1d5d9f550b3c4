#include "remote/remote_web.h"
