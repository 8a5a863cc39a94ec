// The space a directory takes on disk.
#pragma once

#include <string>

// Stores in *size the space allocated on disk (blocks x 512) by all files
// under "path", recursively; directories themselves do not count. Returns 0
// on success, or a negative errno value with *size untouched.
int GetDirSizeOnDisk(const std::string& path, unsigned long* size);
