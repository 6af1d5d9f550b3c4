// byte_queue.h - bytes that wait for room at their target, first in first out. Zeroed is empty. Not locked: belongs to
// one user at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct ByteQueue {
    uint8_t *bytes; // cap
    size_t cap;
    size_t begin; // of what waits
    size_t end;   // begin <= end <= cap
};

// Appends a copy. 0, or -1 without memory: nothing is appended then.
int byte_queue_append(ByteQueue *queue, const uint8_t *bytes, size_t len);

// Takes the first len bytes away; the memory goes with the last one.
void byte_queue_consume(ByteQueue *queue, size_t len);

// Forgets everything and frees the memory.
void byte_queue_clear(ByteQueue *queue);

size_t byte_queue_len(const ByteQueue *queue);
