#pragma once

#include <gtest/gtest.h>

#include <glib.h>

#include <filesystem>
#include <memory>
#include <string>

#include "GLibPtr.h"

// A private scratch directory, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir() {
        const GCharPtr dir(g_dir_make_tmp("zeltest-XXXXXX", nullptr));
        EXPECT_TRUE(dir) << "cannot make a temporary directory";
        if (dir)
            path = dir.get();
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        if (!path.empty())
            std::filesystem::remove_all(path, ignored);
    }

    std::string file(const std::string& name) const { return path + "/" + name; }

    // Writes `contents` to `name` in the directory and returns its path.
    std::string write(const std::string& name, const std::string& contents) const {
        const std::string target = file(name);
        EXPECT_TRUE(g_file_set_contents(target.c_str(), contents.data(),
                                        static_cast<gssize>(contents.size()), nullptr))
            << target;
        return target;
    }

    std::string path;
};
