#include "base/file_watch.h"

#include <utility>

#include <sys/stat.h>

namespace relay {

FileWatch::FileWatch(std::vector<std::string> paths) : paths_(std::move(paths)) {
    forget_changes();
}

bool FileWatch::has_changed() {
    const auto former = std::exchange(latest_, look());
    if (latest_ != former || latest_ == known_)
        return false;
    known_ = latest_;
    return true;
}

void FileWatch::forget_changes() {
    known_ = latest_ = look();
}

std::vector<FileWatch::Stamp> FileWatch::look() const {
    std::vector<Stamp> stamps;
    for (const auto& path : paths_) {
        struct stat file {};
        if (path.empty() || stat(path.c_str(), &file) != 0)
            stamps.push_back({});
        else
            stamps.push_back({static_cast<std::int64_t>(file.st_dev),
                              static_cast<std::int64_t>(file.st_ino), file.st_size,
                              file.st_mtim.tv_sec, file.st_mtim.tv_nsec});
    }
    return stamps;
}

} // namespace relay
