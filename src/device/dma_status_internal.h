// dma_status_internal.h - for tests only.
#pragma once

#include <stdint.h>

#include "device/dma_status.h"

// Copies the cause, returns the status.
uint32_t dma_status_get(char (&cause)[DMA_CAUSE_SIZE]);
