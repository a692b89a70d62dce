// zdepcall: plays the database server for the agent, so that the author of a routine can call it
// without a database.

#include <csignal>
#include <cstdio>
#include <exception>

#include "options.h"
#include "program_version.h"
#include "session.h"
#include "usage_error.h"
#include "waiting.h"

namespace {

int run(int argc, char **argv) {
    using namespace zdepcall;
    const Options options = parse_options(argc, argv);
    switch (options.action) {
    case Options::Action::ShowHelp:
        std::fputs(help_text, stdout);
        return STATUS_OK;
    case Options::Action::ShowVersion:
        std::printf("zdepcall %s\n", program_version());
        return STATUS_OK;
    case Options::Action::Call:
        break;
    }
    catch_signals();
    return options.script ? run_script(options) : run_one_call(options);
}

int finish_output(int status) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return status;
    std::perror("zdepcall: standard output");
    return zdepcall::STATUS_USAGE;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return finish_output(run(argc, argv));
    } catch (const zdepcall::Interrupted &interruption) {
        // Nothing is left behind by now; end as whoever sent the signal expects.
        zdepcall::release_signals();
        std::raise(interruption.signal_number);
        return 128 + interruption.signal_number;
    } catch (const std::exception &error) { // UsageError, or the system refused something
        std::fflush(stdout);
        std::fprintf(stderr, "zdepcall: %s\n", error.what());
        return zdepcall::STATUS_USAGE;
    }
}
