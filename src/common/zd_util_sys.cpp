#include "common/zd_util_sys.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int get_ncpu(void) {
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    if (count < 1)
        count = sysconf(_SC_NPROCESSORS_CONF);
    return count < 1 ? -1 : static_cast<int>(count);
}

long get_pagesize(void) {
    return sysconf(_SC_PAGESIZE);
}

int64_t get_physical_memory_size(void) {
    return static_cast<int64_t>(sysconf(_SC_PHYS_PAGES)) * get_pagesize();
}

int chk_process(int pid, const char *name) {
    char *command = nullptr;
    if (asprintf(&command, "ps -p %d | grep %s | grep -v defunct > /dev/null", pid, name) < 0)
        return 0;
    const int status = system(command);
    free(command);
    return status == 0 ? 1 : 0;
}
