// A fresh directory under the system's temp folder for one test, removed
// with everything in it when the object goes. path has no trailing slash.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace test_support {

class TempDir {
public:
    explicit TempDir(const char* prefix = "qel") {
        std::string pattern = std::filesystem::temp_directory_path().string() + "/" + prefix + "_XXXXXX";
        if (mkdtemp(pattern.data())) path = pattern;
    }
    ~TempDir() {
        if (!path.empty()) std::filesystem::remove_all(path);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
    // Writes text into name in the directory; its full path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }

    std::string path;

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
};

}  // namespace test_support
