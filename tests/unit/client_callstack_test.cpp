#include "client/common/client_callstack.h"

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// Functions of the program whose names the dumps show. Not static, for C names; never inlined, and
// never left by a jump.
#define FRAME extern "C" __attribute__((noinline)) void
#define KEEP_FRAME() __asm__ volatile("" ::: "memory")

namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

using Body = std::function<void()>;

void run_body(void *body) {
    (*static_cast<Body *>(body))();
    KEEP_FRAME();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// What print writes to a stream.
std::string written(const std::function<void(FILE *)> &print) {
    char *text = nullptr;
    size_t size = 0;
    FILE *const fp = open_memstream(&text, &size);
    print(fp);
    fclose(fp);
    std::string result(text, size);
    free(text);
    return result;
}

// The name behind "= " of each line but the first, with the level before it.
std::vector<std::string> levels_and_names(const std::string &dump) {
    std::vector<std::string> result;
    for (const std::string &line : lines_of(dump)) {
        const size_t equals = line.find(" = ");
        if (equals == std::string::npos)
            continue;
        const std::string name = line.substr(equals + 3);
        result.push_back(line.substr(line.find('[') + 1, 2) + " " +
                         name.substr(0, name.find(" + ")));
    }
    return result;
}

struct Location {
    int rc = 1;
    std::string name;
    ptrdiff_t offset = -1;
};

Location location_of(unsigned long ip, size_t len = 1024) {
    Location location;
    std::vector<char> name(len + 1, '#');
    location.rc = callstack_get_location(ip, name.data(), len, &location.offset);
    EXPECT_EQ(name[len], '#') << "written behind the buffer";
    if (location.rc != -1 && len > 0)
        location.name = name.data();
    return location;
}

template <class Pointer>
callstack_ip_t address(Pointer pointer) {
    return reinterpret_cast<callstack_ip_t>(pointer);
}

std::string output_of(const std::string &command) {
    FILE *const pipe = popen(command.c_str(), "r");
    std::string output;
    char part[4096];
    while (const size_t count = fread(part, 1, sizeof part, pipe))
        output.append(part, count);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

// A library of the test's, opened from whatever file.
class Library {
  public:
    explicit Library(const std::string &path)
        : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(handle_, nullptr) << dlerror();
    }
    ~Library() { dlclose(handle_); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    template <class Function>
    Function *find(const char *name) const {
        return reinterpret_cast<Function *>(dlsym(handle_, name));
    }
    callstack_ip_t base() const {
        link_map *map = nullptr;
        dlinfo(handle_, RTLD_DI_LINKMAP, &map);
        return map->l_addr;
    }

  private:
    void *handle_;
};

using CallBelow = void(const char *name, void (*function)(void *), void *argument);

class TempDir {
  public:
    TempDir() {
        std::string name = testing::TempDir() + "client_callstack_XXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = name;
    }
    ~TempDir() { fs::remove_all(path_); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

} // namespace

// ---- dumps of the current stack ----

static std::string dumped;

FRAME dumping_leaf() {
    dumped = written([](FILE *fp) { callstack_dump(fp); });
    KEEP_FRAME();
}

// The dump's own caller must be a function with a name to look for, not a closure.
FRAME dump_here(FILE *fp) {
    callstack_dump(fp);
    KEEP_FRAME();
}

FRAME show_call_stack(FILE *fp) {
    callstack_dump(fp);
    KEEP_FRAME();
}

FRAME show_call_stack_in_fit(FILE *fp) {
    callstack_dump(fp);
    KEEP_FRAME();
}

FRAME direct_caller(void (*dump)(FILE *), FILE *fp) {
    dump(fp);
    KEEP_FRAME();
}

FRAME caller_of_direct_caller(void (*dump)(FILE *), FILE *fp) {
    direct_caller(dump, fp);
    KEEP_FRAME();
}

static char own_frame; // stands for the address of the frame itself

// Lets its own frame name another one as its caller's while dump runs.
FRAME with_broken_link(void *link, void (*dump)(FILE *), FILE *fp) {
    void **const frame = static_cast<void **>(__builtin_frame_address(0));
    void *const caller = frame[0];
    frame[0] = link == &own_frame ? static_cast<void *>(frame) : link;
    dump(fp);
    frame[0] = caller;
    KEEP_FRAME();
}

FRAME calls_with_broken_link(void *link, void (*dump)(FILE *), FILE *fp) {
    with_broken_link(link, dump, fp);
    KEEP_FRAME();
}

static callstack_ip_t captured[64];
static int capture_count;

FRAME capture_here() {
    callstack_get_context(captured, capture_count);
    KEEP_FRAME();
}

FRAME calls_capture() {
    capture_here();
    KEEP_FRAME();
}

FRAME outermost_of_captures() {
    static char name[] = "the program";
    callstack_init(name);
    calls_capture();
    KEEP_FRAME();
}

FRAME capture_to(FILE *) {
    callstack_get_context(captured, capture_count);
    KEEP_FRAME();
}

namespace {

class Dump : public testing::Test {
  protected:
    void TearDown() override {
        callstack_enable(1);
        call_stack_top = nullptr;
    }
    // Runs body below a function of that name, which ends the walk.
    void run_below(const char *name, Body body) {
        routines_.find<CallBelow>("callstack_call_below")(name, run_body, &body);
    }
    Library routines_{CALLSTACK_ROUTINES};
};

TEST_F(Dump, CallerComesFirstWithAddressFrameNameAndOffset) {
    run_below("main", [] { dumped = written([](FILE *fp) { direct_caller(dump_here, fp); }); });
    const std::vector<std::string> lines = lines_of(dumped);
    ASSERT_GE(lines.size(), 3u);
    // The address is printed with the "0x" of the format and that of the number.
    EXPECT_THAT(lines[1], MatchesRegex("    \\[00\\] 0x0x[0-9a-f]+:0x0x[0-9a-f]+ = dump_here "
                                       "\\+ 0x[0-9a-f]{4}"));
    EXPECT_THAT(lines[2], MatchesRegex("    \\[01\\] 0x0x[0-9a-f]+:0x0x[0-9a-f]+ = direct_caller "
                                       "\\+ 0x[0-9a-f]{4}"));
    unsigned long ip = 0;
    unsigned long frame = 0;
    unsigned long offset = 0;
    ASSERT_EQ(
        sscanf(lines[1].c_str(), "    [00] 0x%lx:0x%lx = dump_here + 0x%lx", &ip, &frame, &offset),
        3);
    EXPECT_EQ(ip, address(dump_here) + offset);
    unsigned long outer = 0;
    ASSERT_EQ(sscanf(lines[2].c_str(), "    [01] 0x%lx:0x%lx", &ip, &outer), 2);
    EXPECT_GT(outer, frame);
}

TEST_F(Dump, FirstLineIsTheLocalTime) {
    const time_t before = time(nullptr);
    const std::string line = lines_of(written(dump_here)).at(0);
    const time_t after = time(nullptr);
    ASSERT_THAT(line, MatchesRegex("\\*\\*\\* [0-9]{4}/[0-9]{2}/[0-9]{2} "
                                   "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\*\\*\\*"));
    std::set<std::string> possible;
    for (time_t second = before; second <= after; second++) {
        tm local;
        char text[64];
        localtime_r(&second, &local);
        strftime(text, sizeof text, "*** %Y/%m/%d %H:%M:%S.", &local);
        possible.insert(text);
    }
    EXPECT_THAT(possible, testing::Contains(line.substr(0, line.find('.') + 1)));
}

TEST_F(Dump, DisabledDumpWritesNothing) {
    callstack_enable(0);
    EXPECT_EQ(callstack_disabled, 1);
    EXPECT_EQ(written(dump_here), "");
    callstack_enable(2);
    EXPECT_EQ(callstack_disabled, 0);
    EXPECT_NE(written(dump_here), "");
}

class Wrapper : public Dump, public testing::WithParamInterface<void (*)(FILE *)> {};

TEST_P(Wrapper, IsHiddenWithItsDirectCaller) {
    run_below("thr_main",
              [] { dumped = written([](FILE *fp) { caller_of_direct_caller(GetParam(), fp); }); });
    const std::vector<std::string> names = levels_and_names(dumped);
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names[0], "02 caller_of_direct_caller") << "hidden frames count";
    EXPECT_THAT(dumped, Not(HasSubstr("show_call_stack")));
    EXPECT_THAT(dumped, Not(HasSubstr("= direct_caller")));
}

INSTANTIATE_TEST_SUITE_P(Callstack, Wrapper,
                         testing::Values(show_call_stack, show_call_stack_in_fit));

class Outermost : public Dump, public testing::WithParamInterface<const char *> {};

TEST_P(Outermost, IsTheLastLine) {
    run_below(GetParam(), dumping_leaf);
    const std::vector<std::string> names = levels_and_names(dumped);
    ASSERT_FALSE(names.empty());
    EXPECT_THAT(names.back(), MatchesRegex(std::string("[0-9]{2} ") + GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Callstack, Outermost,
                         testing::Values("main", "start_thread", "thr_main", "svr_wthr_init"));

TEST_F(Dump, InAThreadEndsWithItsOutermostFunction) {
    dumped.clear();
    std::thread([this] { run_below("start_thread", dumping_leaf); }).join();
    const std::vector<std::string> names = levels_and_names(dumped);
    ASSERT_FALSE(names.empty());
    EXPECT_THAT(names.back(), MatchesRegex("[0-9]{2} start_thread"));
}

// A frame that names as its caller's no frame that can be: NULL, itself, one below, one that cannot
// be read.
class BrokenLink : public Dump, public testing::WithParamInterface<int> {
  protected:
    static void *link() {
        void *const here = __builtin_frame_address(0);
        void *const links[] = {nullptr, &own_frame, static_cast<char *>(here) - 4096,
                               reinterpret_cast<void *>(0x7ffffffff000),
                               reinterpret_cast<void *>(0xfffffffffffffff0)};
        return links[GetParam()];
    }
};

TEST_P(BrokenLink, EndsTheDump) {
    const std::string dump =
        written([](FILE *fp) { calls_with_broken_link(link(), dump_here, fp); });
    EXPECT_THAT(levels_and_names(dump),
                ElementsAre("00 dump_here", "01 with_broken_link", "02 calls_with_broken_link"));
}

TEST_P(BrokenLink, EndsTheCapture) {
    capture_count = 8;
    calls_with_broken_link(link(), capture_to, nullptr);
    EXPECT_NE(captured[2], 0u);
    for (int i = 3; i < 8; i++)
        EXPECT_EQ(captured[i], 0u) << i;
}

INSTANTIATE_TEST_SUITE_P(Callstack, BrokenLink, testing::Range(0, 5));

// ---- captures ----

TEST_F(Dump, CaptureReachesFromTheCallerToTheOutermostFunction) {
    capture_count = 64;
    memset(captured, 0xff, sizeof captured);
    outermost_of_captures();
    EXPECT_STREQ(program_name, "the program");
    EXPECT_NE(call_stack_top, nullptr);
    EXPECT_EQ(location_of(captured[0]).name, "capture_here");
    EXPECT_EQ(location_of(captured[1]).name, "calls_capture");
    EXPECT_EQ(location_of(captured[2]).name, "outermost_of_captures");
    for (int i = 3; i < 64; i++)
        EXPECT_EQ(captured[i], 0u) << i;
}

TEST_F(Dump, CaptureStopsWhenTheArrayIsFull) {
    for (const int count : {2, 1, 0, -1}) {
        memset(captured, 0xff, sizeof captured);
        capture_count = count;
        outermost_of_captures();
        for (int i = 0; i < 4; i++)
            EXPECT_EQ(captured[i] == ~0ul, i >= count) << i << " of " << count;
    }
}

std::string dump_of(std::vector<callstack_ip_t> ips) {
    return written(
        [&](FILE *fp) { callstack_dump_context(fp, ips.data(), static_cast<int>(ips.size())); });
}

TEST_F(Dump, CapturedAddressesArePrintedWithoutAFrame) {
    const callstack_ip_t ip = address(direct_caller) + 1;
    char line[128];
    snprintf(line, sizeof line, "    [00] 0x%p:0x(nil) = direct_caller + 0x0001",
             reinterpret_cast<void *>(ip));
    const std::vector<std::string> lines = lines_of(dump_of({ip}));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0], StartsWith("*** 2"));
    EXPECT_EQ(lines[1], line);
}

TEST_F(Dump, CapturedAddressesArePrintedWhileDumpsAreDisabled) {
    callstack_enable(0);
    EXPECT_THAT(levels_and_names(dump_of({address(direct_caller)})),
                ElementsAre("00 direct_caller"));
}

TEST_F(Dump, CapturedAddressesAreHiddenByTheSameRules) {
    EXPECT_THAT(levels_and_names(dump_of({address(callstack_dump) + 1, address(dump_here),
                                          address(show_call_stack), address(direct_caller),
                                          address(caller_of_direct_caller)})),
                ElementsAre("01 dump_here", "04 caller_of_direct_caller"));
    EXPECT_THAT(levels_and_names(dump_of(
                    {address(show_call_stack), address(show_call_stack), address(direct_caller)})),
                ElementsAre("02 direct_caller"))
        << "a hidden frame hides nothing itself";
}

TEST_F(Dump, CapturedAddressesEndWithTheOutermostFunction) {
    callstack_ip_t in_main = 0;
    run_below("main", [&] {
        callstack_ip_t ips[8];
        callstack_get_context(ips, 8);
        for (const callstack_ip_t ip : ips) {
            if (ip != 0 && in_main == 0 && location_of(ip).name == "main")
                in_main = ip;
        }
    });
    EXPECT_THAT(levels_and_names(
                    dump_of({address(direct_caller), in_main, address(caller_of_direct_caller)})),
                ElementsAre("00 direct_caller", "01 main"));
}

TEST_F(Dump, UnfilledEntriesOfACaptureHaveNoLine) {
    EXPECT_THAT(levels_and_names(dump_of({address(direct_caller), 0, 0})),
                ElementsAre("00 direct_caller"));
    EXPECT_EQ(lines_of(dump_of({0, 0})).size(), 1u);
}

TEST_F(Dump, AddressInNoFileIsPrintedWithoutAName) {
    void *const page =
        mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char line[128];
    snprintf(line, sizeof line, "    [00] 0x%p:0x(nil) = ??????", page);
    EXPECT_EQ(lines_of(dump_of({address(page), address(direct_caller)})).at(1), line);
    EXPECT_THAT(levels_and_names(dump_of({address(page), address(direct_caller)})),
                ElementsAre("00 ??????", "01 direct_caller"))
        << "the dump goes on";
    munmap(page, 4096);
}

// ---- files made for the test ----

constexpr uint64_t kLinkAddress = 0x400000;

struct Symbol {
    std::string name;
    uint64_t value;
    unsigned char type = STT_FUNC;
    uint16_t section = 1;
};

// A file with one segment at its start, linked for kLinkAddress, and one symbol table.
class ElfFile {
  public:
    Elf64_Ehdr header = {};
    Elf64_Phdr segment = {};
    Elf64_Shdr sections[3] = {};

    explicit ElfFile(const std::vector<Symbol> &symbols, uint32_t table_type = SHT_SYMTAB) {
        std::string names(1, '\0');
        std::vector<Elf64_Sym> table;
        for (const Symbol &symbol : symbols) {
            Elf64_Sym entry = {};
            entry.st_name = static_cast<uint32_t>(names.size());
            entry.st_info = ELF64_ST_INFO(STB_LOCAL, symbol.type);
            entry.st_shndx = symbol.section;
            entry.st_value = symbol.value;
            table.push_back(entry);
            names += symbol.name + '\0';
        }
        memcpy(header.e_ident, ELFMAG, SELFMAG);
        header.e_ident[EI_CLASS] = ELFCLASS64;
        header.e_phoff = sizeof header;
        header.e_phnum = 1;
        header.e_shoff = sizeof header + sizeof segment;
        header.e_shnum = 3;
        segment.p_type = PT_LOAD;
        segment.p_vaddr = kLinkAddress;
        const uint64_t data = header.e_shoff + sizeof sections;
        const uint64_t table_size = table.size() * sizeof(Elf64_Sym);
        sections[1].sh_type = table_type;
        sections[1].sh_offset = data;
        sections[1].sh_size = table_size;
        sections[1].sh_link = 2;
        sections[2].sh_type = SHT_STRTAB;
        sections[2].sh_offset = data + table_size;
        sections[2].sh_size = names.size();
        data_.assign(reinterpret_cast<const char *>(table.data()), table_size);
        data_ += names;
    }

    std::string bytes() const {
        std::string all(reinterpret_cast<const char *>(&header), sizeof header);
        all.append(reinterpret_cast<const char *>(&segment), sizeof segment);
        all.append(reinterpret_cast<const char *>(sections), sizeof sections);
        return all + data_;
    }

  private:
    std::string data_;
};

// Bytes as a file that is mapped, but not loaded.
class Mapped {
  public:
    static constexpr size_t kSize = 65536;

    explicit Mapped(const std::string &bytes, callstack_ip_t where = 0) {
        const std::string path = dir_.path() + "/file";
        std::ofstream(path) << bytes;
        const int fd = open(path.c_str(), O_RDONLY);
        start_ = mmap(reinterpret_cast<void *>(where), kSize, PROT_READ, MAP_PRIVATE, fd, 0);
        close(fd);
        EXPECT_NE(start_, MAP_FAILED);
    }
    ~Mapped() { munmap(start_, kSize); }
    Mapped(const Mapped &) = delete;
    Mapped &operator=(const Mapped &) = delete;

    // What the function at that offset from the link address is called.
    Location at(uint64_t offset) const { return location_of(address(start_) + offset); }
    callstack_ip_t base() const { return address(start_); }

  private:
    TempDir dir_;
    void *start_;
};

// ---- names: against nm and addr2line ----

// The functions of a file by address, as nm tells them. Undefined ones have none.
using Functions = std::map<unsigned long, std::set<std::string>>;

void add_functions(const std::string &file, const std::string &options, Functions *functions,
                   std::map<unsigned long, unsigned long> *ends) {
    std::istringstream table(output_of("LC_ALL=C nm -f sysv " + options + " '" + file + "'"));
    for (std::string line; std::getline(table, line);) {
        std::vector<std::string> columns;
        std::istringstream row(line);
        for (std::string column; std::getline(row, column, '|');) {
            column.erase(0, column.find_first_not_of(' '));
            column.erase(column.find_last_not_of(' ') + 1);
            columns.push_back(column);
        }
        if (columns.size() < 6 || columns[3] != "FUNC" || columns[1].empty())
            continue;
        const unsigned long value = std::stoul(columns[1], nullptr, 16);
        const unsigned long size = columns[4].empty() ? 0 : std::stoul(columns[4], nullptr, 16);
        // The version of a dynamic symbol is not part of its name there.
        (*functions)[value].insert(columns[0]);
        (*functions)[value].insert(columns[0].substr(0, columns[0].find('@')));
        (*ends)[value] = std::max((*ends)[value], value + size);
    }
}

struct MappedFile {
    const char *what;
    const char *path;
    const char *nm_options; // what of the file's symbols is there
};

void PrintTo(const MappedFile &file, std::ostream *stream) {
    *stream << file.what;
}

callstack_ip_t base_of(const std::string &path) {
    struct Search {
        std::string path;
        callstack_ip_t base;
    } search = {path == "/proc/self/exe" ? "" : fs::canonical(path).string(), 0};
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *data) {
            Search *const wanted = static_cast<Search *>(data);
            const std::string name = info->dlpi_name;
            const bool found = wanted->path.empty()
                                   ? name.empty()
                                   : !name.empty() && fs::exists(name) &&
                                         fs::canonical(name).string() == wanted->path;
            if (found)
                wanted->base = info->dlpi_addr;
            return found ? 1 : 0;
        },
        &search);
    return search.base;
}

class NameOf : public testing::TestWithParam<MappedFile> {};

TEST_P(NameOf, EveryFunctionIsTheOneThatNmTells) {
    const Library routines(CALLSTACK_ROUTINES);
    const Library stripped(CALLSTACK_ROUTINES_STRIPPED);
    const std::string path =
        fs::canonical(GetParam().path).string(); // the shell has another /proc/self
    Functions functions;
    std::map<unsigned long, unsigned long> ends;
    std::istringstream options(GetParam().nm_options);
    for (std::string option; std::getline(options, option, ',');)
        add_functions(path, option, &functions, &ends);
    ASSERT_GE(functions.size(), 2u);
    const callstack_ip_t base = base_of(GetParam().path);
    ASSERT_NE(base, 0u);
    // A thousand functions will do of a program that has more.
    const size_t stride = functions.size() / 1000 + 1;
    size_t number = 0;
    for (const auto &[value, names] : functions) {
        if (number++ % stride != 0)
            continue;
        const unsigned long last = std::max(value, ends[value] - (ends[value] > value ? 1 : 0));
        for (const unsigned long asked : {value, (value + last) / 2, last}) {
            const auto nearest = std::prev(functions.upper_bound(asked));
            const Location location = location_of(base + asked, 8192);
            ASSERT_EQ(location.rc, 0) << std::hex << asked << " in " << *names.begin();
            EXPECT_TRUE(nearest->second.contains(location.name))
                << std::hex << asked << " is in " << *nearest->second.begin() << ", not "
                << location.name;
            EXPECT_EQ(static_cast<unsigned long>(location.offset), asked - nearest->first);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Callstack, NameOf,
    testing::Values(MappedFile{"Program", "/proc/self/exe", "--defined-only"},
                    MappedFile{"Library", ZDEPL_LIBRARY, "--defined-only"},
                    MappedFile{"UserLibrary", CALLSTACK_ROUTINES, "--defined-only"},
                    MappedFile{"StrippedUserLibrary", CALLSTACK_ROUTINES_STRIPPED,
                               "-D --defined-only"}),
    [](const auto &given) { return given.param.what; });

TEST(NameOfAddress, AgreesWithAddr2line) {
    const Library routines(CALLSTACK_ROUTINES);
    const callstack_ip_t exported = address(routines.find<void>("callstack_exported"));
    const callstack_ip_t local = address(routines.find<void *()>("callstack_address_of_local")());
    std::string command = std::string("addr2line -f -e '") + CALLSTACK_ROUTINES + "'";
    std::vector<std::string> names;
    for (const callstack_ip_t start : {exported, local}) {
        for (const callstack_ip_t ip : {start, start + 1, start + 5}) {
            std::ostringstream argument;
            argument << " 0x" << std::hex << ip - routines.base();
            command += argument.str();
            names.push_back(location_of(ip).name);
        }
    }
    const std::vector<std::string> told = lines_of(output_of(command));
    ASSERT_EQ(told.size(), 2 * names.size()) << "a name and a place for each";
    for (size_t i = 0; i < names.size(); i++)
        EXPECT_EQ(names[i], told[2 * i]);
    EXPECT_EQ(names[0], "callstack_exported");
    EXPECT_EQ(names[3], "callstack_local");
}

TEST(NameOfAddress, StrippedFileHasTheDynamicNamesOnly) {
    const Library stripped(CALLSTACK_ROUTINES_STRIPPED);
    const callstack_ip_t exported = address(stripped.find<void>("callstack_exported"));
    const Location location = location_of(exported + 1);
    EXPECT_EQ(location.rc, 0);
    EXPECT_EQ(location.name, "callstack_exported");
    EXPECT_EQ(location.offset, 1);
    const callstack_ip_t local = address(stripped.find<void *()>("callstack_address_of_local")());
    EXPECT_NE(location_of(local).name, "callstack_local");
}

TEST(NameOfAddress, FileDeletedAfterLoadingHasNone) {
    const TempDir dir;
    const std::string copy = dir.path() + "/routines.so";
    fs::copy_file(CALLSTACK_ROUTINES, copy);
    const Library routines(copy);
    const callstack_ip_t exported = address(routines.find<void>("callstack_exported"));
    ASSERT_EQ(location_of(exported).name, "callstack_exported");
    fs::remove(copy);
    EXPECT_EQ(location_of(exported).rc, -1);
    EXPECT_THAT(levels_and_names(dump_of({exported})), ElementsAre("00 ??????"));
    // Another file in its place is not what is mapped.
    fs::copy_file(CALLSTACK_ROUTINES, copy);
    EXPECT_EQ(location_of(exported).rc, -1);
}

TEST(NameOfAddress, AddressesBehindNoFileHaveNone) {
    EXPECT_EQ(location_of(getauxval(AT_SYSINFO_EHDR)).rc, -1) << "[vdso]";
    int on_the_stack = 0;
    EXPECT_EQ(location_of(address(&on_the_stack)).rc, -1);
    EXPECT_EQ(location_of(0).rc, -1);
    EXPECT_EQ(location_of(~0ul).rc, -1);
}

TEST(NameOfAddress, FileOfAMappingsNameIsNotTakenForIt) {
    const TempDir dir;
    const std::string start = fs::current_path();
    fs::current_path(dir.path());
    std::ofstream("[vdso]") << ElfFile({{"false_friend", kLinkAddress}}).bytes();
    EXPECT_EQ(location_of(getauxval(AT_SYSINFO_EHDR)).rc, -1);
    fs::current_path(start);
}

TEST(NameOfAddress, LookupLeavesNoDescriptorAndNoMappingBehind) {
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto mappings = [] {
        std::ifstream maps("/proc/self/maps");
        size_t count = 0;
        for (std::string line; std::getline(maps, line);)
            count += line.find("client_callstack_test") != std::string::npos ? 1 : 0;
        return count;
    };
    const auto descriptors_before = descriptors();
    const size_t mappings_before = mappings();
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(location_of(address(direct_caller)).rc, 0);
        EXPECT_EQ(location_of(0).rc, -1);
    }
    EXPECT_EQ(descriptors(), descriptors_before);
    EXPECT_EQ(mappings(), mappings_before);
}

TEST(NameOfAddress, NameIsCutToTheBuffer) {
    const callstack_ip_t ip = address(direct_caller) + 2;
    const Location whole = location_of(ip, sizeof "direct_caller");
    EXPECT_EQ(whole.rc, 0);
    EXPECT_EQ(whole.name, "direct_caller");
    const Location cut = location_of(ip, sizeof "direct_caller" - 1);
    EXPECT_EQ(cut.rc, -2);
    EXPECT_EQ(cut.name, "direct_calle");
    EXPECT_EQ(cut.offset, 2);
    EXPECT_EQ(location_of(ip, 1).rc, -2);
    EXPECT_EQ(location_of(ip, 1).name, "");
    EXPECT_EQ(location_of(ip, 0).rc, -2);
}

// ---- names: in files made for the test ----

const std::vector<Symbol> kTwoFunctions = {{"second", kLinkAddress + 0x200},
                                           {"first", kLinkAddress + 0x100}};

class SymbolTable : public testing::TestWithParam<uint32_t> {};

TEST_P(SymbolTable, NearestFunctionBelowIsTaken) {
    const Mapped file(ElfFile(kTwoFunctions, GetParam()).bytes());
    EXPECT_EQ(file.at(0x100).name, "first");
    EXPECT_EQ(file.at(0x100).offset, 0);
    EXPECT_EQ(file.at(0x1ff).name, "first");
    EXPECT_EQ(file.at(0x1ff).offset, 0xff);
    EXPECT_EQ(file.at(0x200).name, "second");
    EXPECT_EQ(file.at(0x5000).name, "second");
    EXPECT_EQ(file.at(0xff).rc, -1) << "both lie above";
}

INSTANTIATE_TEST_SUITE_P(Callstack, SymbolTable, testing::Values(SHT_SYMTAB, SHT_DYNSYM));

TEST(ElfFile, TablesOfOtherTypesAreNotRead) {
    const Mapped file(ElfFile(kTwoFunctions, SHT_PROGBITS).bytes());
    EXPECT_EQ(file.at(0x100).rc, -1);
}

TEST(ElfFile, OnlyDefinedFunctionsCount) {
    const Mapped file(ElfFile({{"wanted", kLinkAddress + 0x100},
                               {"data", kLinkAddress + 0x110, STT_OBJECT},
                               {"label", kLinkAddress + 0x120, STT_NOTYPE},
                               {"elsewhere", kLinkAddress + 0x130, STT_FUNC, SHN_UNDEF}})
                          .bytes());
    EXPECT_EQ(file.at(0x140).name, "wanted");
}

// The start of that much address space that nothing is mapped to.
callstack_ip_t free_addresses(size_t size) {
    void *const start = mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    munmap(start, size);
    return address(start);
}

TEST(ElfFile, AbsoluteFunctionIsNotMoved) {
    const callstack_ip_t where = free_addresses(Mapped::kSize);
    const Mapped file(
        ElfFile({{"moved", kLinkAddress + 0x100}, {"absolute", where + 0x180, STT_FUNC, SHN_ABS}})
            .bytes(),
        where);
    ASSERT_EQ(file.base(), where);
    EXPECT_EQ(file.at(0x17f).name, "moved");
    EXPECT_EQ(file.at(0x180).name, "absolute");
}

TEST(ElfFile, FirstOfSeveralAtOneAddressIsTaken) {
    const Mapped file(
        ElfFile({{"one", kLinkAddress + 0x100}, {"other", kLinkAddress + 0x100}}).bytes());
    EXPECT_EQ(file.at(0x100).name, "one");
}

TEST(ElfFile, AddressBetweenTwoMappingsIsTheSecondOnes) {
    const callstack_ip_t where = free_addresses(2 * Mapped::kSize);
    const Mapped first(ElfFile({{"first", kLinkAddress}}).bytes(), where);
    const Mapped second(ElfFile({{"second", kLinkAddress}}).bytes(), where + Mapped::kSize);
    ASSERT_EQ(second.base(), first.base() + Mapped::kSize);
    EXPECT_EQ(first.at(Mapped::kSize - 1).name, "first");
    EXPECT_EQ(first.at(Mapped::kSize).name, "second");
}

TEST(ElfFile, NamesOfUpTo255CharactersArePrinted) {
    const std::string longest(255, 'n');
    const Mapped file(
        ElfFile({{longest, kLinkAddress + 0x100}, {longest + "n", kLinkAddress + 0x200}}).bytes());
    EXPECT_THAT(levels_and_names(dump_of({file.base() + 0x100, file.base() + 0x200})),
                ElementsAre("00 " + longest, "01 ??????"));
}

struct Damage {
    const char *what;
    void (*to)(ElfFile &file);
};

void PrintTo(const Damage &damage, std::ostream *stream) {
    *stream << damage.what;
}

class Damaged : public testing::TestWithParam<Damage> {};

TEST_P(Damaged, HasNoNames) {
    ElfFile file(kTwoFunctions);
    ASSERT_EQ(Mapped(file.bytes()).at(0x100).rc, 0);
    GetParam().to(file);
    EXPECT_EQ(Mapped(file.bytes()).at(0x100).rc, -1);
}

INSTANTIATE_TEST_SUITE_P(
    Callstack, Damaged,
    testing::Values(
        Damage{"Magic", [](ElfFile &file) { file.header.e_ident[EI_MAG3] = 'f'; }},
        Damage{"Class32", [](ElfFile &file) { file.header.e_ident[EI_CLASS] = ELFCLASS32; }},
        Damage{"NoSegment", [](ElfFile &file) { file.header.e_phnum = 0; }},
        Damage{"SegmentOfAnotherType", [](ElfFile &file) { file.segment.p_type = PT_NOTE; }},
        Damage{"SegmentNotOnAPage", [](ElfFile &file) { file.segment.p_offset = 0x10; }},
        Damage{"SegmentsOutside", [](ElfFile &file) { file.header.e_phoff = 1 << 20; }},
        Damage{"SegmentsWrapping", [](ElfFile &file) { file.header.e_phoff = ~0ull - 8; }},
        Damage{"NoSections", [](ElfFile &file) { file.header.e_shnum = 0; }},
        Damage{"OneSectionOutside", [](ElfFile &file) { file.header.e_shnum = 200; }},
        Damage{"SectionsWrapping", [](ElfFile &file) { file.header.e_shoff = ~0ull - 63; }},
        Damage{"TableOutside", [](ElfFile &file) { file.sections[1].sh_size = 1 << 20; }},
        Damage{"TableWrapping", [](ElfFile &file) { file.sections[1].sh_size = ~0ull; }},
        Damage{"NoNames", [](ElfFile &file) { file.sections[1].sh_link = 3; }},
        Damage{"NamesNotCounted", [](ElfFile &file) { file.header.e_shnum = 2; }},
        Damage{"NamesOutside", [](ElfFile &file) { file.sections[2].sh_size = 1 << 20; }},
        Damage{"NamesEmpty", [](ElfFile &file) { file.sections[2].sh_size = 0; }},
        Damage{"NamesEmptyAtTheStart",
               [](ElfFile &file) {
                   file.sections[2].sh_size = 0;
                   file.sections[2].sh_offset = 0;
               }},
        Damage{"NamesWithoutEnd", [](ElfFile &file) { file.sections[2].sh_size--; }}),
    [](const auto &given) { return given.param.what; });

TEST(ElfFile, EveryTruncationIsSurvived) {
    const std::string whole = ElfFile(kTwoFunctions).bytes();
    for (size_t size = 1; size < whole.size(); size++)
        EXPECT_EQ(Mapped(whole.substr(0, size)).at(0x100).rc, -1) << size;
}

TEST(ElfFile, EmptyFileAndTextHaveNoNames) {
    EXPECT_EQ(Mapped("").at(0).rc, -1);
    EXPECT_EQ(Mapped("no ELF file\n").at(0).rc, -1);
}

// A line of the memory map that does not fit a page is left out, together with its end, which here
// reads like a line of its own that would hold every address.
TEST(ElfFile, NameTooLongForTheReaderHidesNoOtherFile) {
    constexpr size_t kNameColumn = 73;
    const size_t page = static_cast<size_t>(getpagesize());
    const TempDir dir;
    const int start = open(".", O_RDONLY | O_DIRECTORY);
    std::string path = dir.path();
    ASSERT_EQ(chdir(path.c_str()), 0);
    const std::string step(100, 'd');
    while (path.size() + step.size() < page - 200) {
        ASSERT_EQ(mkdir(step.c_str(), 0700), 0);
        ASSERT_EQ(chdir(step.c_str()), 0);
        path += "/" + step;
    }
    const std::string name =
        std::string(page - kNameColumn - path.size() - 1, 'f') + "0-ffffffffffffffff r-xp 0 0 0 x";
    std::ofstream(name) << ElfFile(kTwoFunctions).bytes();
    const int fd = open(name.c_str(), O_RDONLY);
    ASSERT_EQ(fchdir(start), 0);
    close(start);
    // Below the program, so that its line comes first.
    void *const low =
        mmap(reinterpret_cast<void *>(0x10000000), 4096, PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    ASSERT_EQ(low, reinterpret_cast<void *>(0x10000000));
    EXPECT_EQ(location_of(address(low) + 0x100).rc, -1);
    EXPECT_EQ(location_of(address(direct_caller)).name, "direct_caller");
    munmap(low, 4096);
}

} // namespace
