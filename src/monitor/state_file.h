// state_file.h - a small file that readers never see half written. Thread of the monitor only.
#pragma once

// Writes text to "<path>.new" and renames it to path, readable by its owner only. The first failure of a row is a
// warning, the others are silent; so a full disk costs one line.
void state_file_replace(const char *path, const char *text);

void state_file_remove(const char *path);
