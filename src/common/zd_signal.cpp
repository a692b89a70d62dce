#include "common/zd_signal.h"

#include <string.h>

sig_func_t *zd_signal_register(int signo, sig_func_t *func) {
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signo);
    if (pthread_sigmask(SIG_UNBLOCK, &only, nullptr) != 0)
        return SIG_ERR;
    struct sigaction action;
    struct sigaction previous;
    memset(&action, 0, sizeof action);
    action.sa_handler = func;
    action.sa_flags = SA_INTERRUPT; // no SA_RESTART: a waiting system call returns with EINTR
    sigemptyset(&action.sa_mask);
    return sigaction(signo, &action, &previous) == 0 ? previous.sa_handler : SIG_ERR;
}
