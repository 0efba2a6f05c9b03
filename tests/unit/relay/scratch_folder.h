// A folder for one test's files; it goes away with the object.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <stdlib.h>

class ScratchFolder {
public:
    ScratchFolder() {
        std::string name = testing::TempDir() + "relay_tests.XXXXXX";
        path_ = mkdtemp(name.data()) ? name : "";
        EXPECT_NE(path_, "") << "no folder could be made in " << testing::TempDir();
    }
    ~ScratchFolder() {
        if (!path_.empty())
            std::filesystem::remove_all(path_);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;

    const std::string& path() const { return path_; }
    std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

    // Returns the file's path.
    std::string write(std::string_view name, std::string_view text) const {
        std::ofstream(file(name), std::ios::binary) << text;
        return file(name);
    }

    std::string read(std::string_view name) const {
        std::ifstream stream(file(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }

private:
    std::string path_;
};
