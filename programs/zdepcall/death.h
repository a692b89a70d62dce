// Why an agent ended, in words, from what it left behind.

#ifndef ZDEPCALL_DEATH_H
#define ZDEPCALL_DEATH_H

#include <string>

namespace zdepcall {

struct DeathEvidence {
    int wait_status = 0;       // of waitpid
    bool was_ready = false;    // it had announced readiness
    bool was_calling = false;  // a request had not been answered
    bool kept_running = false; // it closed its socket and had to be killed
    std::string output;        // the end of what it and the routine wrote to standard error
    std::string log;           // the end of its log
    std::string error_file;    // what it appended to ./extproc.err
};

// One line without a full stop: "the routine crashed: ...".
std::string describe_death(const DeathEvidence &evidence);

} // namespace zdepcall

#endif
