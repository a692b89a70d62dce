// Environment look-up with a second name to fall back to.

#ifndef ZD_GETENV_H
#define ZD_GETENV_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// The value of name; when that is unset, of alt_name (NULL: there is none); else dflt, which may
// be NULL. A variable that is set to nothing counts as set. The result belongs to the environment
// or to the caller who gave dflt.
ZD_API const char *zd_getenv(const char *name, const char *alt_name, const char *dflt);

ZD_END_DECLS

#endif
