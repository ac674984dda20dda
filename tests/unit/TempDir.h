#pragma once

#include <gtest/gtest.h>

#include <glib.h>
#include <glib/gstdio.h>

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
        if (!path.empty())
            remove_tree(path);
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

  private:
    static void remove_tree(const std::string& dir) {
        if (GDir* const entries = g_dir_open(dir.c_str(), 0, nullptr)) {
            while (const char* name = g_dir_read_name(entries)) {
                const std::string entry = dir + "/" + name;
                if (g_file_test(entry.c_str(), G_FILE_TEST_IS_DIR) &&
                    !g_file_test(entry.c_str(), G_FILE_TEST_IS_SYMLINK))
                    remove_tree(entry);
                else
                    g_unlink(entry.c_str());
            }
            g_dir_close(entries);
        }
        g_rmdir(dir.c_str());
    }
};
