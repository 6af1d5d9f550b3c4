// dma_status.h - the status of the device management agent (DMA: this process) as the device is told it, with a cause.
// One short lock inside; any thread.
#pragma once

#include <stddef.h>
#include <stdint.h>

enum DmaStatus : uint32_t {
    DMA_OFFLINE = 0,
    DMA_PLUGIN_INIT_FAILED = 1,
    DMA_CENTER_REQUEST_FAILED = 2, // known to the device, set by nobody
    DMA_ACTIVATION_FAILED = 3,
    DMA_ONLINE = 4,
};

enum DmaCauseRule { DMA_CAUSE_CLEAR, DMA_CAUSE_KEEP };

// Sets the status. A change clears or keeps the cause and marks the notification of the device as pending.
void dma_status_set(DmaStatus status, DmaCauseRule cause_rule);

// Sets the cause, truncated to 127 characters; a change of the whole text marks the notification as pending. Null: an
// error line.
void set_dma_cause(const char *cause);

constexpr size_t DMA_CAUSE_SIZE = 128;

// Copies the cause, and returns the status' text as the device is told it (static).
const char *dma_status_describe(char (&cause)[DMA_CAUSE_SIZE]);

// Sends "online-status-notify" when a notification is pending. Without a device link the notification is lost.
void dma_status_notify(void);

// Sends status and cause in a message of the given type. Warns without a device link.
void dma_status_send(const char *type);
