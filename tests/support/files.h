// Whole-file reads and writes and scratch directories for tests that give the
// library files to read or look at what it wrote.
#pragma once

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>

namespace zotest {

// The file's bytes; empty when it cannot be read.
inline std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Replaces the file's contents with `text`.
inline void writeFile(std::string const& path, std::string const& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// A new empty directory under /tmp whose name starts with `prefix`; empty on failure.
inline std::string makeTempDir(char const* prefix) {
    std::string templ = std::string("/tmp/") + prefix + "_XXXXXX";
    char* dir = mkdtemp(&templ[0]);
    return dir ? std::string(dir) : std::string();
}

}  // namespace zotest
