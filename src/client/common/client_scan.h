// The statement classifier of client tools: finds the words of an SQL text one by one, and tells
// from the first ones what kind of statement it is. It knows comments, but not quoted text: a word
// ends at white space or "/" wherever that stands. One process-wide token buffer: not for threads.

#ifndef CLIENT_SCAN_H
#define CLIENT_SCAN_H

#include "common/zd_base.h"

enum cs_token_e {
    TT_EOL = 0, // no such token
    TT_OTHERS = 1,
    TT_ALTER = 2,
    TT_BEGIN = 3,
    TT_CALL = 4,
    TT_CREATE = 5,
    TT_COMMENT = 6,
    TT_COMMIT = 7,
    TT_CURRENT = 8,
    TT_DECLARE = 9,
    TT_DELETE = 10,
    TT_DROP = 11,
    TT_GLOBAL = 12,
    TT_GRANT = 13,
    TT_INSERT = 14,
    TT_MERGE = 15,
    TT_NOAUDIT = 16,
    TT_OF = 17,
    TT_OR = 18,
    TT_PUBLIC = 19,
    TT_RENAME = 20,
    TT_REPLACE = 21,
    TT_REVOKE = 22,
    TT_ROLLBACK = 23,
    TT_SAVEPOINT = 24,
    TT_SELECT = 25,
    TT_SET = 26,
    TT_TABLE = 27,
    TT_TEMPORARY = 28,
    TT_TRUNCATE = 29,
    TT_UPDATE = 30,
    TT_WITH = 31,
    TT_EXPLAIN = 32,
    TT_MAX = 33
};

#define CS_TOKEN_MAX 128 // characters; a longer token is cut

ZD_BEGIN_DECLS

// The token that was found last.
ZD_API extern char cs_token_[CS_TOKEN_MAX + 1];

// Finds the n-th token, from 1, of str, or when that is NULL of the rest behind *cursor. Copies it
// to cs_token_ and returns that; *cursor is then behind it. NULL, with cs_token_ as it was, when
// the text has fewer tokens: *cursor is then behind the last one, or untouched when there is none.
ZD_API char *cs_get_token(char *str, char **cursor, int n);

// Finds a token the same way and tells its class: the first keyword, in the order of the
// enumeration, that it begins with, in any case. "SELECTX" is TT_SELECT, "ORDER" is TT_OR.
ZD_API enum cs_token_e cs_get_token_type(char *str, char **cursor, int n);

ZD_END_DECLS

#endif
