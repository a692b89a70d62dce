// zdepa, the agent host: takes a socket that is already connected to the database server, and
// serves the calls that arrive on it until the server goes away. All the work is the library's;
// this file reads the command line and refuses what could not work.

#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "client/zdepa/epa_init.h"
#include "client/zdepa/epa_proc.h"

enum { STATUS_OK = 0, STATUS_FAILED = 1, STATUS_USAGE = 2 };

static const char usage_text[] =
    "Usage: zdepa --fd N [--no-boot-signal]\n"
    "Serve external-procedure calls that arrive on the connected stream socket N.\n"
    "\n"
    "The database server starts this program and hands it the socket as an open descriptor.\n"
    "To call a routine by hand, use zdepcall.\n"
    "\n"
    "  --fd N            the descriptor of the socket\n"
    "  --no-boot-signal  do not announce readiness (the 13 bytes \"BOOT SUCCESS\\0\") on it\n"
    "  --version         print the version and exit\n"
    "  --help            print this text and exit\n"
    "\n"
    "Environment:\n"
    "  ZD_HOME (else WQ_HOME)  home directory, required; settings are read from, and logs written\n"
    "                          to, its folder client/zdepa (settings file: zdepa.cfg)\n"
    "\n"
    "Exit status: 0 the server closed the connection; 1 a fatal error, told in ./extproc.err, or "
    "a\n"
    "crash of a routine, told in the log; 2 the command line is wrong.\n";

struct options {
    int fd;
    bool boot_signal;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) static void usage_error(const char *format,
                                                                           ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("zdepa: ", stderr);
    vfprintf(stderr, format, arguments);
    fputs("\n", stderr);
    va_end(arguments);
    exit(STATUS_USAGE);
}

[[noreturn]] static void exit_after_printing() {
    if (fflush(stdout) != 0) {
        fprintf(stderr, "zdepa: standard output: %s\n", strerror(errno));
        exit(STATUS_FAILED);
    }
    exit(STATUS_OK);
}

static int parse_descriptor(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    const bool is_number = text[0] >= '0' && text[0] <= '9' && *end == '\0';
    if (!is_number || errno != 0 || value > INT_MAX)
        usage_error("--fd %s: not a descriptor number (give the number of an open socket)", text);
    return static_cast<int>(value);
}

// Ends the program with a reason unless fd is a stream socket with a peer.
static void require_connected_socket(int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0)
        usage_error("--fd %d: %s (the parent must leave the socket open across exec)", fd,
                    strerror(errno));
    int type = 0;
    socklen_t size = sizeof type;
    if (!S_ISSOCK(status.st_mode) || getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0)
        usage_error("--fd %d: not a socket (hand down a connected stream socket)", fd);
    if (type != SOCK_STREAM)
        usage_error("--fd %d: not a stream socket (hand down a connected stream socket)", fd);
    sockaddr_storage peer;
    size = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &size) != 0)
        usage_error("--fd %d: %s (connect the socket before starting the agent)", fd,
                    strerror(errno));
}

static options parse_command_line(int argc, char **argv) {
    static const option long_options[] = {{"fd", required_argument, nullptr, 'f'},
                                          {"no-boot-signal", no_argument, nullptr, 'n'},
                                          {"version", no_argument, nullptr, 'V'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    const char *fd_text = nullptr;
    options result = {-1, true};
    opterr = 0;
    for (;;) {
        // Where the scan stands now is the word that a complaint is about.
        const char *const word = argv[optind];
        switch (getopt_long(argc, argv, "+:", long_options, nullptr)) {
        case -1:
            if (optind < argc)
                usage_error("%s: unexpected argument (try 'zdepa --help')", argv[optind]);
            if (fd_text == nullptr)
                usage_error("--fd: missing (give the descriptor of a connected socket; "
                            "try 'zdepa --help')");
            result.fd = parse_descriptor(fd_text);
            return result;
        case 'f':
            fd_text = optarg;
            break;
        case 'n':
            result.boot_signal = false;
            break;
        case 'V':
            epa_print_version();
            exit_after_printing();
        case 'h':
            fputs(usage_text, stdout);
            exit_after_printing();
        case ':':
            usage_error("%s: needs a value (try 'zdepa --help')", word);
        default:
            if (strncmp(word, "--", 2) == 0 && optopt != 0)
                usage_error("%s: takes no value (try 'zdepa --help')", word);
            usage_error("%s: unknown option (try 'zdepa --help')", word);
        }
    }
}

int main(int argc, char **argv) {
    const options chosen = parse_command_line(argc, argv);
    require_connected_socket(chosen.fd);
    // A server that has gone away must be seen as a failed write, which ends the session in order.
    signal(SIGPIPE, SIG_IGN);

    epa_init();
    epa_worker_init(chosen.fd, chosen.boot_signal ? 1 : 0);
    epa_process_request();
    return STATUS_OK;
}
