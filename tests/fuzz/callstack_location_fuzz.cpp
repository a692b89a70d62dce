// Looks up addresses in any file that is mapped. Input: the file.

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "client/common/client_callstack.h"

namespace {

constexpr size_t kMapped = 8192;
constexpr size_t kNameSize = 16;

void require(bool condition) {
    if (!condition)
        __builtin_trap();
}

// The one file of this process, for one input after the other. It has a name as long as the
// process lives: a file without one is not looked into.
int file() {
    static char path[] = "/tmp/callstack_location_fuzz_XXXXXX";
    static const int fd = [] {
        const int made = mkstemp(path);
        require(made >= 0);
        atexit([] { unlink(path); });
        return made;
    }();
    return fd;
}

void look_up(unsigned long ip) {
    char name[kNameSize];
    memset(name, '#', sizeof name);
    ptrdiff_t offset = -1;
    switch (callstack_get_location(ip, name, sizeof name, &offset)) {
    case 0:
        require(memchr(name, '\0', sizeof name) != nullptr && offset >= 0);
        break;
    case -2:
        require(strlen(name) == sizeof name - 1 && offset >= 0);
        break;
    case -1:
        require(name[0] == '#' && offset == -1);
        break;
    default:
        require(false);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int fd = file();
    require(ftruncate(fd, 0) == 0);
    require(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    void *const start = mmap(nullptr, kMapped, PROT_READ, MAP_PRIVATE, fd, 0);
    require(start != MAP_FAILED);
    static constexpr unsigned long kPlaces[] = {0x0, 0x120, 0x1fff};
    for (const unsigned long at : kPlaces)
        look_up(reinterpret_cast<unsigned long>(start) + at);
    munmap(start, kMapped);
    return 0;
}
