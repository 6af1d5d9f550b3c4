// byte_queue.h - a first-in, first-out queue of bytes. A zeroed one is empty. Not locked: one user at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct ByteQueue {
    uint8_t *bytes; // cap bytes; null while the queue is empty
    size_t cap;
    size_t begin; // of the queued bytes
    size_t end;   // begin <= end <= cap
};

// Appends a copy. 0, or -1 without memory: nothing is appended then.
int byte_queue_append(ByteQueue *queue, const uint8_t *bytes, size_t len);

// Removes the first len bytes, at most all; the last one frees the memory.
void byte_queue_consume(ByteQueue *queue, size_t len);

// Empties the queue and frees the memory.
void byte_queue_clear(ByteQueue *queue);

size_t byte_queue_len(const ByteQueue *queue);
