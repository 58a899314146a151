// An open file of the C runtime, which closes itself.
#pragma once

#include <cstdio>
#include <memory>

struct CloseFile {
    void operator()(std::FILE *file) const { (void)std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, CloseFile>;
