#include "death.h"

#include <sys/wait.h>

#include <csignal>
#include <cstring>

namespace zdepcall {

namespace {

// Who did it: before the first call no routine has run.
std::string culprit(const DeathEvidence &evidence) {
    return evidence.was_calling ? "the routine" : "the agent";
}

// The line of text that holds the phrase; empty when none does.
std::string line_with(const std::string &text, const char *phrase) {
    const size_t found = text.rfind(phrase);
    if (found == std::string::npos)
        return {};
    const size_t start = text.rfind('\n', found) + 1; // npos + 1 is the beginning
    return text.substr(start, text.find('\n', found) - start);
}

// The complaint of the C library about a heap that is not sound; empty when there is none.
std::string heap_complaint(const std::string &output) {
    for (const char *phrase :
         {"free(): ", "malloc(): ", "realloc(): ", "calloc(): ", "malloc_consolidate(): ",
          "munmap_chunk(): ", "double free or corruption", "corrupted size vs. prev_size",
          "corrupted double-linked list", "sysmalloc: "}) {
        if (std::string line = line_with(output, phrase); !line.empty())
            return line;
    }
    return {};
}

std::string describe_abort(const DeathEvidence &evidence) {
    if (evidence.output.find("REDZONE CHECK ERROR") != std::string::npos)
        return "the routine wrote beyond its memory: the agent's allocator found a broken red zone "
               "and aborted";
    if (const std::string line = line_with(evidence.output, "Assertion fail with condition");
        !line.empty())
        return "an assertion of the agent failed: " + line;
    if (const std::string line = heap_complaint(evidence.output); !line.empty())
        return "the routine wrote beyond its memory: the C library found a broken heap and "
               "aborted: " +
               line;
    if (evidence.output.find("stack smashing detected") != std::string::npos)
        return "the routine wrote beyond an array on its stack and was aborted";
    return culprit(evidence) + " aborted (SIGABRT)";
}

std::string describe_signal(const DeathEvidence &evidence) {
    const int signal_number = WTERMSIG(evidence.wait_status);
    if (signal_number == SIGABRT)
        return describe_abort(evidence);
    const char *const abbreviation = sigabbrev_np(signal_number);
    const std::string name =
        abbreviation != nullptr ? std::string("SIG") + abbreviation : std::to_string(signal_number);
    switch (signal_number) {
    case SIGSEGV:
    case SIGBUS:
    case SIGFPE:
    case SIGILL:
        return culprit(evidence) + " crashed: " + sigdescr_np(signal_number) + " (" + name + ")";
    default:
        return "the agent was killed by a signal (" + name + ")";
    }
}

std::string describe_exit(const DeathEvidence &evidence) {
    const std::string status = "status " + std::to_string(WEXITSTATUS(evidence.wait_status));
    if (evidence.log.find("SEGMENTATION FAULT DETECTED") != std::string::npos)
        return culprit(evidence) +
               " crashed: the agent's log says SEGMENTATION FAULT DETECTED (exit " + status + ")";
    if (!evidence.error_file.empty())
        return "the agent gave up with " + status + " and said why in ./extproc.err";
    if (!evidence.was_ready)
        return "the agent ended with " + status + " before it was ready";
    const bool lost_socket =
        evidence.log.find("ERROR_IO occurred") != std::string::npos ||
        evidence.log.find("ERROR_EPA_CONN_CLOSED occurred") != std::string::npos;
    if (evidence.was_calling && lost_socket)
        return "the routine closed the agent's socket, and the agent ended with " + status;
    if (evidence.was_calling)
        return "the routine called exit: the agent ended with " + status + " within the call";
    return "the agent ended with " + status;
}

} // namespace

std::string describe_death(const DeathEvidence &evidence) {
    if (evidence.kept_running)
        return culprit(evidence) + " closed the agent's socket and ran on; it has been killed";
    if (WIFSIGNALED(evidence.wait_status))
        return describe_signal(evidence);
    return describe_exit(evidence);
}

} // namespace zdepcall
