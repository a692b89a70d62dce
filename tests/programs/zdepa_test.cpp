// The command line of the agent host, by running it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "program_run.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

class Zdepa : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "zdepa.XXXXXX";
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_), 0);
    }
    void TearDown() override {
        close(sockets_[0]);
        close(sockets_[1]);
        std::filesystem::remove_all(folder_);
    }

    // In a folder of its own, with that as its home. Our end of the socket is not passed on.
    ProgramRun run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZDEPA_PROGRAM);
        return run_program(arguments, "", [this] {
            close(sockets_[0]);
            if (chdir(folder_.c_str()) != 0)
                _exit(126);
            setenv("ZD_HOME", folder_.c_str(), 1);
        });
    }

    // The agent on its end of the socket, ours already having sent bytes and no more to come.
    ProgramRun serve(const std::string &bytes, std::vector<std::string> arguments = {}) {
        EXPECT_EQ(send(sockets_[0], bytes.data(), bytes.size(), 0),
                  static_cast<ssize_t>(bytes.size()));
        shutdown(sockets_[0], SHUT_WR);
        arguments.insert(arguments.begin(), {"--fd", std::to_string(sockets_[1])});
        const ProgramRun result = run(arguments);
        close(sockets_[1]);
        sockets_[1] = -1;
        return result;
    }

    std::string received() {
        std::string all;
        char bytes[4096];
        for (ssize_t count; (count = recv(sockets_[0], bytes, sizeof bytes, 0)) > 0;)
            all.append(bytes, static_cast<size_t>(count));
        return all;
    }

    std::string folder_;
    int sockets_[2] = {-1, -1};
};

constexpr const char *expected_help_start = "Usage: zdepa --fd N [--no-boot-signal]\n";

TEST_F(Zdepa, HelpGoesToStandardOutput) {
    const ProgramRun result = run({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr(expected_help_start));
    EXPECT_THAT(result.complaints, IsEmpty());
}

TEST_F(Zdepa, VersionIsTheBanner) {
    const ProgramRun result = run({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output,
                MatchesRegex("\nZerdal 1 [^ ]+ External Procedure Agent \\(Build [^ ]+\\)\n"
                             "Linux x86_64 version \\(little-endian\\)\n"
                             "Compiled at [0-9-]+ [0-9:]+ UTC\n\n"));
}

TEST_F(Zdepa, OutputThatCannotBeWrittenIsAnError) {
    const ProgramRun result = run_program({ZDEPA_PROGRAM, "--version"}, "",
                                          [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.complaints, HasSubstr("zdepa: standard output: No space left on device"));
}

struct BadCommandLine {
    const char *name;
    std::vector<std::string> arguments;
    const char *complaint;
};

void PrintTo(const BadCommandLine &line, std::ostream *stream) {
    *stream << line.name;
}

class ZdepaCommandLine : public testing::TestWithParam<BadCommandLine> {};

TEST_P(ZdepaCommandLine, IsRefusedWithStatusTwo) {
    std::vector<std::string> arguments = GetParam().arguments;
    arguments.insert(arguments.begin(), ZDEPA_PROGRAM);
    const ProgramRun result = run_program(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_EQ(result.complaints, std::string("zdepa: ") + GetParam().complaint + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Bad, ZdepaCommandLine,
    testing::Values(
        BadCommandLine{"NoDescriptor",
                       {},
                       "--fd: missing (give the descriptor of a connected socket; try 'zdepa "
                       "--help')"},
        BadCommandLine{
            "DescriptorWithoutNumber", {"--fd"}, "--fd: needs a value (try 'zdepa --help')"},
        BadCommandLine{"Word",
                       {"--fd", "three"},
                       "--fd three: not a descriptor number (give the number of an open socket)"},
        BadCommandLine{"Empty",
                       {"--fd="},
                       "--fd : not a descriptor number (give the number of an open socket)"},
        BadCommandLine{"TrailingText",
                       {"--fd", "3x"},
                       "--fd 3x: not a descriptor number (give the number of an open socket)"},
        BadCommandLine{"Negative",
                       {"--fd", "-1"},
                       "--fd -1: not a descriptor number (give the number of an open socket)"},
        BadCommandLine{"TooLarge",
                       {"--fd", "2147483648"},
                       "--fd 2147483648: not a descriptor number (give the number of an open "
                       "socket)"},
        BadCommandLine{"FarTooLarge",
                       {"--fd", "99999999999999999999"},
                       "--fd 99999999999999999999: not a descriptor number (give the number of an "
                       "open socket)"},
        BadCommandLine{"NotOpen",
                       {"--fd", "917"},
                       "--fd 917: Bad file descriptor (the parent must leave the socket open "
                       "across exec)"},
        BadCommandLine{
            "Pipe", {"--fd", "0"}, "--fd 0: not a socket (hand down a connected stream socket)"},
        BadCommandLine{"UnknownLongOption",
                       {"--frobnicate"},
                       "--frobnicate: unknown option (try 'zdepa --help')"},
        BadCommandLine{"UnknownShortOption", {"-x"}, "-x: unknown option (try 'zdepa --help')"},
        BadCommandLine{"ValueForAFlag",
                       {"--no-boot-signal=1"},
                       "--no-boot-signal=1: takes no value (try 'zdepa --help')"},
        BadCommandLine{"ExtraArgument",
                       {"--fd", "0", "more"},
                       "more: unexpected argument (try 'zdepa --help')"}),
    [](const testing::TestParamInfo<BadCommandLine> &given) { return given.param.name; });

TEST_F(Zdepa, DatagramSocketIsRefused) {
    int datagrams[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, datagrams), 0);
    const ProgramRun result = run({"--fd", std::to_string(datagrams[0])});
    close(datagrams[0]);
    close(datagrams[1]);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.complaints, HasSubstr("not a stream socket"));
}

TEST_F(Zdepa, SocketWithoutPeerIsRefused) {
    const int lonely = socket(AF_UNIX, SOCK_STREAM, 0);
    const ProgramRun result = run({"--fd", std::to_string(lonely)});
    close(lonely);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.complaints, HasSubstr("(connect the socket before starting the agent)"));
}

TEST_F(Zdepa, ReadinessSignalIsThirteenBytesAndTheEndOfTheStreamEndsItInOrder) {
    const ProgramRun result = serve("");
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.complaints, IsEmpty());
    EXPECT_EQ(received(), std::string("BOOT SUCCESS\0", 13));
}

TEST_F(Zdepa, ReadinessSignalCanBeLeftOut) {
    EXPECT_EQ(serve("", {"--no-boot-signal"}).status, 0);
    EXPECT_EQ(received(), "");
}

TEST_F(Zdepa, RequestOfTypeMinusOneEndsItInOrder) {
    const std::string header("\xff\xff\xff\xff\0\0\0\0\0\0\0\0\0\0\0\0", 16);
    EXPECT_EQ(serve(header + header, {"--no-boot-signal"}).status, 0);
    EXPECT_EQ(received(), "");
}

TEST_F(Zdepa, ServerThatIsGoneBeforeTheReadinessSignalIsAFailureAndNoSignal) {
    close(sockets_[0]);
    sockets_[0] = -1;
    EXPECT_EQ(run({"--fd", std::to_string(sockets_[1])}).status, 1);
}

TEST_F(Zdepa, MissingHomeIsToldInTheErrorFile) {
    const ProgramRun result =
        run_program({ZDEPA_PROGRAM, "--fd", std::to_string(sockets_[1])}, "", [this] {
            if (chdir(folder_.c_str()) != 0)
                _exit(126);
            unsetenv("ZD_HOME");
            unsetenv("WQ_HOME");
        });
    EXPECT_EQ(result.status, 1);
    std::ifstream file(folder_ + "/extproc.err");
    std::string line;
    std::getline(file, line);
    EXPECT_EQ(line, "ZD_HOME is not set");
}

#ifndef ZDEPL_SANITIZED // a sanitizer adds its own run-time libraries
TEST_F(Zdepa, NeedsTheLibraryAndTheCLibraryAlone) {
    FILE *const lines =
        popen("readelf -dW " ZDEPA_PROGRAM " | sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p'", "r");
    std::vector<std::string> needed;
    char line[256];
    while (fgets(line, sizeof line, lines) != nullptr)
        needed.emplace_back(line, strlen(line) - 1);
    pclose(lines);
    EXPECT_THAT(needed, testing::UnorderedElementsAre("libzdepl.so.1", "libc.so.6"));
}
#endif

} // namespace
