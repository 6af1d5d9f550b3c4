// world.h - what stands around a fuzzed parser: one thread, peers whose bytes are the input, and time that passes at
// once. world.cpp takes the place of threads, clock, poll and the socket calls that would reach a peer; everything else
// is the agent's own code.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Begins an input: settings, periods and strategy as at a start, a device link, and no other connection. The peers send
// these bytes, at most piece (0: all) per read, then fall silent, then close; they take all that is sent to them.
// accepts: connects succeed, else they are refused. world_end closes everything.
void world_begin(const uint8_t *data, size_t size, size_t piece, bool accepts);
void world_end(void);

// What the peers still have to say.
size_t world_bytes_left(void);
