// Whole-file reads and writes; paths are UTF-8 and used as they are.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "Platform/Platform.h"

namespace NORVA::Platform {

bool readWholeFile(const std::string& path, std::string& bytes) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        return false;
    }
    std::string data(std::size_t(info.st_size), '\0');
    std::size_t done = 0;
    while (done < data.size()) {
        ssize_t got = read(fd, data.data() + done, data.size() - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += std::size_t(got);
    }
    close(fd);
    // A short read means the file changed under us: take none of it.
    if (done != data.size()) return false;
    bytes = std::move(data);
    return true;
}

bool writeWholeFile(const std::string& path, const std::string& bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) break;
        done += std::size_t(put);
    }
    bool closed = close(fd) == 0;
    return closed && done == bytes.size();
}

}  // namespace NORVA::Platform
