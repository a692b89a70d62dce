#include "common/zd_util_sys.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace {

// What the system is to answer instead of the truth.
std::map<int, long> *answers;

} // namespace

extern "C" {

long __sysconf(int name);

// The library's calls come here, as the program's own names go before libc's. So do those of a
// sanitizer that is only about to start.
__attribute__((no_sanitize("address", "thread", "undefined"))) long sysconf(int name) noexcept {
    if (answers != nullptr && answers->contains(name))
        return answers->at(name);
    return __sysconf(name);
}
}

namespace {

namespace fs = std::filesystem;

class Answering {
  public:
    explicit Answering(std::map<int, long> these) : these_(std::move(these)) { answers = &these_; }
    ~Answering() { answers = nullptr; }
    Answering(const Answering &) = delete;
    Answering &operator=(const Answering &) = delete;

  private:
    std::map<int, long> these_;
};

TEST(MachineFacts, AreThoseOfThisMachine) {
    EXPECT_EQ(get_ncpu(), get_nprocs());
    EXPECT_EQ(get_pagesize(), getpagesize());
    struct sysinfo info;
    ASSERT_EQ(sysinfo(&info), 0);
    EXPECT_NEAR(static_cast<double>(get_physical_memory_size()),
                static_cast<double>(info.totalram) * info.mem_unit, getpagesize());
}

TEST(MachineFacts, OnlineProcessorsComeBeforeConfiguredOnes) {
    const Answering system({{_SC_NPROCESSORS_ONLN, 3}, {_SC_NPROCESSORS_CONF, 8}});
    EXPECT_EQ(get_ncpu(), 3);
}

TEST(MachineFacts, ConfiguredProcessorsStandInForUnknownOnlineOnes) {
    const Answering system({{_SC_NPROCESSORS_ONLN, -1}, {_SC_NPROCESSORS_CONF, 8}});
    EXPECT_EQ(get_ncpu(), 8);
}

TEST(MachineFacts, UnknownProcessorsAreMinusOne) {
    const Answering system({{_SC_NPROCESSORS_ONLN, -1}, {_SC_NPROCESSORS_CONF, -1}});
    EXPECT_EQ(get_ncpu(), -1);
}

TEST(MachineFacts, MemoryMayBeMoreThanThirtyTwoBits) {
    const Answering system({{_SC_PHYS_PAGES, 1l << 30}, {_SC_PAGESIZE, 4096}});
    EXPECT_EQ(get_pagesize(), 4096);
    EXPECT_EQ(get_physical_memory_size(), int64_t{1} << 42);
}

// A process list of the test's own: a program "ps" that notes its arguments and prints a line.
class ProcessList : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "zd_util_sys_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name;
        path_ = getenv("PATH");
        setenv("PATH", (dir_ + ":" + path_).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        fs::remove_all(dir_);
    }
    void show(const std::string &line) {
        const std::string ps = dir_ + "/ps";
        std::ofstream(ps) << "#!/bin/sh\necho \"$@\" >'" << dir_ << "/arguments'\n"
                          << "echo '  PID TTY          TIME CMD'\necho '" << line << "'\n";
        chmod(ps.c_str(), 0755);
    }
    std::string arguments() const {
        std::ifstream file(dir_ + "/arguments");
        std::string line;
        std::getline(file, line);
        return line;
    }

  private:
    std::string dir_;
    std::string path_;
};

TEST_F(ProcessList, ProcessOfTheNumberAndNameRuns) {
    show("  123 ?        00:00:00 zdepa");
    EXPECT_EQ(chk_process(123, "zdepa"), 1);
    EXPECT_EQ(arguments(), "-p 123");
    EXPECT_EQ(chk_process(123, "zdepx"), 0);
}

TEST_F(ProcessList, DefunctProcessDoesNotCount) {
    show("  123 ?        00:00:00 zdepa <defunct>");
    EXPECT_EQ(chk_process(123, "zdepa"), 0);
}

TEST_F(ProcessList, NameOfAnyLengthIsPassedOn) {
    const std::string name(5000, 'n');
    show("  123 ?        00:00:00 " + name);
    EXPECT_EQ(chk_process(123, name.c_str()), 1);
    EXPECT_EQ(chk_process(123, (name + "n").c_str()), 0);
}

TEST(ChkProcess, OwnProcessIsFoundUntilItHasEnded) {
    EXPECT_EQ(chk_process(getpid(), "zd_util_sys"), 1);
    EXPECT_EQ(chk_process(getpid(), "some_other_name"), 0);
    const pid_t child = fork();
    if (child == 0)
        pause();
    EXPECT_EQ(chk_process(child, "zd_util_sys"), 1);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(chk_process(child, "zd_util_sys"), 0);
}

} // namespace
