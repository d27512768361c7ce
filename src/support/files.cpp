// Raw access to a byte range of a file. Both routines create a missing file,
// readable and writable by its owner only: these files hold panel data that
// other users of the system have no business with.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/utilities.hpp"

namespace {

constexpr mode_t kCreateMode = S_IRUSR | S_IWUSR;

// Opens with O_CREAT. A descriptor that is not positive counts as a failure;
// descriptor 0 is closed again so that the refusal does not leak it.
int open_created(const char *name, int flags) noexcept {
    const int fd = ::open(name, flags | O_CREAT, kCreateMode);
    if (fd == 0) ::close(fd);
    return fd > 0 ? fd : -1;
}

// A byte range that cannot be addressed (negative offset or count) or a
// missing buffer is refused with -1 before the file is touched, instead of
// letting a negative count become a huge transfer size.
bool range_refused(const char *name, const void *buf, int addr, int nWords) noexcept {
    return name == nullptr || buf == nullptr || addr < 0 || nWords < 0;
}

}  // namespace

namespace kplc::support {

int read_file_range(const char *file_addr, char *buf, int addr, int nWords) noexcept {
    if (range_refused(file_addr, buf, addr, nWords)) return -1;
    const int fd = open_created(file_addr, O_RDONLY);
    if (fd < 0) return -1;
    int result = -1;
    if (::lseek(fd, addr, SEEK_SET) == static_cast<off_t>(addr))
        result = static_cast<int>(::read(fd, buf, static_cast<size_t>(nWords)));
    ::close(fd);
    return result;
}

int write_file_range(const char *file_addr, const char *buf, int addr, int nWords) noexcept {
    if (range_refused(file_addr, buf, addr, nWords)) return -1;
    // No O_TRUNC: the bytes outside the written range stay as they are.
    const int fd = open_created(file_addr, O_WRONLY);
    if (fd < 0) return -1;
    int result = -1;
    if (::lseek(fd, addr, SEEK_SET) == static_cast<off_t>(addr))
        result = static_cast<int>(::write(fd, buf, static_cast<size_t>(nWords)));
    ::close(fd);
    return result;
}

}  // namespace kplc::support
