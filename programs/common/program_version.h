// What the programs say about themselves besides the host queries of common/zd_env.h.

#ifndef PROGRAM_VERSION_H
#define PROGRAM_VERSION_H

// One line for --version, after the program's name: "1.0.0 (build 0123456789ab, ...)".
// A constant string.
const char *program_version(void);

#endif
