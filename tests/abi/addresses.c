// Linked at a fixed address, a program names the library's functions by entries of its own and may
// hold the library's objects in its own image. Both must be what the library uses too.

#include <stdio.h>

#include "client/common/client_try.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"

static int failures;

static void check(int holds, const char *what) {
    if (holds)
        return;
    fprintf(stderr, "addresses: not the same: %s\n", what);
    failures++;
}

static allocator_t *new_region(void) {
    allocator_t *const region = real_sys_region_allocator_new(&_system_allocator, "addresses", 1);
    check(region->desc == &region_allocator_desc, "region_allocator_desc");
    return region;
}

int main(void) {
    check(region_allocator_desc.func_malloc == region_malloc, "region_malloc");
    check(region_allocator_desc.func_free == region_free, "region_free");
    check(region_allocator_desc.func_delete == region_delete, "region_delete");
    check(_system_allocator_desc.func_malloc == system_malloc, "system_malloc");
    check(_system_allocator_desc.func_realloc == system_realloc, "system_realloc");
    allocator_t *const region = new_region();
    region->desc->func_delete(region);
    pthread_once(&client_try_jmpbuf_once_, client_try_init);
    check(pthread_setspecific(client_try_jmpbuf_key_, NULL) == 0, "client_try_jmpbuf_key_");
    return failures != 0;
}
