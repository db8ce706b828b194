// Files and error outcomes for the tool's tests, in-process and end to end.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "CliError.h"

namespace zr {
namespace clitest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void writeFile(const std::string& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

inline std::string makeTempDir(const std::string& tag) {
    std::string tmpl = ::testing::TempDir() + "/cli-" + tag + "-XXXXXX";
    if (!mkdtemp(tmpl.data())) ADD_FAILURE() << "mkdtemp failed";
    return tmpl;
}

// The names in a directory, sorted; empty when it does not exist.
inline std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The exit code and text of the CliError f throws; 0 and "" when it throws none.
inline std::pair<int, std::string> failure(const std::function<void()>& f) {
    try {
        f();
    } catch (const cli::CliError& e) {
        return {e.code(), e.what()};
    }
    return {0, ""};
}

}  // namespace clitest
}  // namespace zr
