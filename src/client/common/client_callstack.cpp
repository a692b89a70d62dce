#include "client/common/client_callstack.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

char *program_name;
void *call_stack_top;
unsigned char callstack_disabled;

namespace {

// ---- the memory map of the process ----

// Reads the lines of the map through one page.
struct map_iterator {
    off_t offset; // of the file: where reading goes on
    int fd;
    size_t buf_size;
    char *buf;
    char *buf_end; // behind what was read
    char *next;    // the next line
};

struct mapping {
    unsigned long start;
    unsigned long end;
    unsigned long offset; // in the file
    const char *path;     // in the iterator's buffer, up to its next line
};

bool open_maps(map_iterator *maps) {
    char path[sizeof "/proc/-2147483648/maps"];
    snprintf(path, sizeof path, "/proc/%d/maps", getpid());
    *maps = {};
    maps->fd = open(path, O_RDONLY | O_CLOEXEC);
    if (maps->fd < 0)
        return false;
    maps->buf_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    // No heap: it may be what has broken.
    void *const page =
        mmap(nullptr, maps->buf_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        close(maps->fd);
        return false;
    }
    maps->buf = maps->buf_end = maps->next = static_cast<char *>(page);
    return true;
}

void close_maps(const map_iterator *maps) {
    munmap(maps->buf, maps->buf_size);
    close(maps->fd);
}

// Reads on behind what is left in the buffer. False at the end of the file.
bool read_maps(map_iterator *maps) {
    const size_t left = static_cast<size_t>(maps->buf_end - maps->next);
    memmove(maps->buf, maps->next, left);
    maps->next = maps->buf;
    maps->buf_end = maps->buf + left;
    const ssize_t count = pread(maps->fd, maps->buf_end, maps->buf_size - left, maps->offset);
    if (count <= 0)
        return false;
    maps->offset += count;
    maps->buf_end += count;
    return true;
}

// The next line, terminated, or NULL. One that is longer than the buffer is left out: no file of
// so long a name can be opened.
char *next_line(map_iterator *maps) {
    bool left_out = false;
    for (;;) {
        const size_t count = static_cast<size_t>(maps->buf_end - maps->next);
        char *const end = static_cast<char *>(memchr(maps->next, '\n', count));
        if (end != nullptr) {
            char *const line = maps->next;
            *end = '\0';
            maps->next = end + 1;
            if (!left_out)
                return line;
            left_out = false;
            continue;
        }
        if (count == maps->buf_size) {
            maps->next = maps->buf_end;
            left_out = true;
        }
        if (!read_maps(maps))
            return nullptr;
    }
}

bool find_mapping(map_iterator *maps, unsigned long ip, mapping *found) {
    while (const char *const line = next_line(maps)) {
        int path = 0;
        if (sscanf(line, "%lx-%lx %*s %lx %*s %*s %n", &found->start, &found->end, &found->offset,
                   &path) != 3)
            continue;
        if (ip >= found->start && ip < found->end) {
            found->path = line + path;
            return true;
        }
    }
    return false;
}

// ---- ELF files ----

struct elf_image_s {
    void *image; // mapped for reading
    size_t size;
};
using elf_image_t = elf_image_s;

bool lies_inside(const elf_image_t *image, uint64_t offset, uint64_t size) {
    return offset <= image->size && size <= image->size - offset;
}

const char *bytes_at(const elf_image_t *image, uint64_t offset) {
    return static_cast<const char *>(image->image) + offset;
}

// Copies entry number index of a table of records: nothing in a file need be aligned.
template <class Record>
bool read_record(const elf_image_t *image, uint64_t table, uint64_t index, Record *record) {
    if (!lies_inside(image, table, (index + 1) * sizeof *record))
        return false;
    memcpy(record, bytes_at(image, table + index * sizeof *record), sizeof *record);
    return true;
}

bool is_elf64(const elf_image_t *image) {
    return lies_inside(image, 0, sizeof(Elf64_Ehdr)) &&
           memcmp(bytes_at(image, 0), ELFMAG, SELFMAG) == 0 &&
           *bytes_at(image, EI_CLASS) == ELFCLASS64;
}

// What a mapping is called that no file is behind, such as "[vdso]", is not to be opened.
bool map_image(const char *path, elf_image_t *image) {
    const int fd = path[0] == '/' ? open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
    if (fd < 0)
        return false;
    struct stat status;
    void *mapped = MAP_FAILED;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
        image->size = static_cast<size_t>(status.st_size);
        mapped = mmap(nullptr, image->size, PROT_READ, MAP_PRIVATE, fd, 0);
    }
    close(fd);
    if (mapped == MAP_FAILED)
        return false;
    image->image = mapped;
    if (is_elf64(image))
        return true;
    munmap(mapped, image->size);
    return false;
}

// How far the file's addresses were moved when it was loaded.
bool find_load_offset(const elf_image_t *image, const Elf64_Ehdr &header, const mapping &where,
                      uint64_t *load_offset) {
    Elf64_Phdr segment;
    for (uint64_t i = 0; i < header.e_phnum; i++) {
        if (!read_record(image, header.e_phoff, i, &segment))
            return false;
        if (segment.p_type == PT_LOAD && segment.p_offset == where.offset) {
            *load_offset = where.start - segment.p_vaddr;
            return true;
        }
    }
    return false;
}

struct nearest_symbol {
    const char *name; // NULL: none yet
    uint64_t distance;
};

// Looks through one symbol table. One that is broken counts as empty.
void search_table(const elf_image_t *image, const Elf64_Ehdr &header, const Elf64_Shdr &table,
                  uint64_t load_offset, uint64_t ip, nearest_symbol *nearest) {
    Elf64_Shdr names;
    if (!lies_inside(image, table.sh_offset, table.sh_size) || table.sh_link >= header.e_shnum ||
        !read_record(image, header.e_shoff, table.sh_link, &names) || names.sh_size == 0 ||
        !lies_inside(image, names.sh_offset, names.sh_size) ||
        *bytes_at(image, names.sh_offset + names.sh_size - 1) != '\0')
        return;
    Elf64_Sym symbol;
    for (uint64_t i = 0; i < table.sh_size / sizeof symbol; i++) {
        if (!read_record(image, table.sh_offset, i, &symbol))
            return;
        if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF ||
            symbol.st_name >= names.sh_size)
            continue;
        const uint64_t moved = symbol.st_shndx == SHN_ABS ? 0 : load_offset;
        const uint64_t address = symbol.st_value + moved;
        if (address <= ip && (nearest->name == nullptr || ip - address < nearest->distance)) {
            nearest->name = bytes_at(image, names.sh_offset + symbol.st_name);
            nearest->distance = ip - address;
        }
    }
}

int find_location(const elf_image_t *image, const mapping &where, unsigned long ip, char *buf,
                  size_t len, ptrdiff_t *offset) {
    Elf64_Ehdr header;
    uint64_t load_offset;
    memcpy(&header, bytes_at(image, 0), sizeof header);
    if (!find_load_offset(image, header, where, &load_offset) ||
        !lies_inside(image, header.e_shoff, header.e_shnum * sizeof(Elf64_Shdr)))
        return -1;
    nearest_symbol nearest = {};
    Elf64_Shdr section;
    for (uint64_t i = 0; i < header.e_shnum; i++) {
        if (read_record(image, header.e_shoff, i, &section) &&
            (section.sh_type == SHT_SYMTAB || section.sh_type == SHT_DYNSYM))
            search_table(image, header, section, load_offset, ip, &nearest);
    }
    if (nearest.name == nullptr)
        return -1;
    *offset = static_cast<ptrdiff_t>(nearest.distance);
    const size_t length = strlen(nearest.name);
    const size_t kept = length < len ? length : len - 1;
    if (len > 0) {
        memcpy(buf, nearest.name, kept);
        buf[kept] = '\0';
    }
    return length < len ? 0 : -2;
}

// ---- the walk ----

// What a function that keeps a frame pointer leaves at its frame address.
struct stack_frame {
    const stack_frame *caller;
    callstack_ip_t return_address;
};

// A caller without a frame pointer leaves anything where its frame address should be. The kernel
// copies from there, and says so where a load would crash.
bool read_frame(const stack_frame *frame, stack_frame *copy) {
    const iovec local = {copy, sizeof *copy};
    const iovec remote = {const_cast<stack_frame *>(frame), sizeof *frame};
    errno = 0;
    if (process_vm_readv(getpid(), &local, 1, &remote, 1, 0) == sizeof *copy)
        return true;
    if (errno != EPERM && errno != ENOSYS)
        return false;
    *copy = *frame; // not allowed to ask
    return true;
}

void write_time_line(FILE *fp) {
    timeval now;
    tm local;
    gettimeofday(&now, nullptr);
    localtime_r(&now.tv_sec, &local);
    fprintf(fp, "*** %04u/%02u/%02u %02u:%02u:%02d.%03d ***\n",
            static_cast<unsigned int>(local.tm_year + 1900),
            static_cast<unsigned int>(local.tm_mon + 1), static_cast<unsigned int>(local.tm_mday),
            static_cast<unsigned int>(local.tm_hour), static_cast<unsigned int>(local.tm_min),
            local.tm_sec, static_cast<int>(now.tv_usec / 1000));
}

bool is_any_of(const char *name, const char *const *names) {
    while (*names != nullptr && strcmp(name, *names) != 0)
        names++;
    return *names != nullptr;
}

// Returns how many of the next frames are hidden, or -1 when this was the last one.
int write_frame_line(FILE *fp, int level, callstack_ip_t ip, const void *frame) {
    static constexpr const char *kWrappers[] = {"show_call_stack", "show_call_stack_in_fit",
                                                nullptr};
    static constexpr const char *kOutermost[] = {"main", "start_thread", "thr_main",
                                                 "svr_wthr_init", nullptr};
    char name[256];
    ptrdiff_t offset;
    const void *const address = reinterpret_cast<const void *>(ip);
    if (callstack_get_location(ip, name, sizeof name, &offset) != 0) {
        fprintf(fp, "    [%02d] 0x%p:0x%p = ??????\n", level, address, frame);
        return 0;
    }
    if (strcmp(name, "callstack_dump") == 0)
        return 0;
    if (is_any_of(name, kWrappers))
        return 1;
    fprintf(fp, "    [%02d] 0x%p:0x%p = %s + 0x%04x\n", level, address, frame, name,
            static_cast<unsigned int>(offset));
    return is_any_of(name, kOutermost) ? -1 : 0;
}

// Writes frame after frame, by the hiding rules.
struct frame_writer {
    FILE *fp;
    int level;
    int skip;

    // False when the walk ends here.
    bool write(callstack_ip_t ip, const void *frame) {
        if (skip == 0)
            skip = write_frame_line(fp, level, ip, frame);
        else
            skip--;
        level++;
        return skip >= 0;
    }
};

} // namespace

void callstack_init(char *prog_name) {
    const stack_frame *const own = static_cast<const stack_frame *>(__builtin_frame_address(0));
    program_name = prog_name;
    call_stack_top = const_cast<stack_frame *>(own->caller);
}

void callstack_enable(unsigned char enable) {
    callstack_disabled = enable == 0;
}

void callstack_dump(FILE *fp) {
    if (callstack_disabled)
        return;
    write_time_line(fp);
    frame_writer writer = {fp, 0, 0};
    const stack_frame *frame = static_cast<const stack_frame *>(__builtin_frame_address(0));
    const stack_frame *previous = nullptr;
    stack_frame copy;
    while (frame > previous && read_frame(frame, &copy) &&
           writer.write(copy.return_address, frame)) {
        previous = frame;
        frame = copy.caller;
    }
}

void callstack_get_context(callstack_ip_t *ip, int context_len) {
    const stack_frame *frame = static_cast<const stack_frame *>(__builtin_frame_address(0));
    const stack_frame *previous = nullptr;
    stack_frame copy;
    int count = 0;
    while (count < context_len && frame > previous && frame != call_stack_top &&
           read_frame(frame, &copy)) {
        ip[count++] = copy.return_address;
        previous = frame;
        frame = copy.caller;
    }
    for (; count < context_len; count++)
        ip[count] = 0;
}

void callstack_dump_context(FILE *fp, const callstack_ip_t *ip, int context_len) {
    write_time_line(fp);
    frame_writer writer = {fp, 0, 0};
    for (int i = 0; i < context_len && ip[i] != 0; i++) {
        if (!writer.write(ip[i], nullptr))
            return;
    }
}

int callstack_get_location(unsigned long ip, char *buf, size_t len, ptrdiff_t *offset) {
    map_iterator maps;
    if (!open_maps(&maps))
        return -1;
    mapping where;
    elf_image_t image;
    int rc = -1;
    if (find_mapping(&maps, ip, &where) && map_image(where.path, &image)) {
        rc = find_location(&image, where, ip, buf, len, offset);
        munmap(image.image, image.size);
    }
    close_maps(&maps);
    return rc;
}
