#include "common/zdmsg/zdmsg.h"

#include <stdio.h>
#include <string.h>

#include <initializer_list>

#include "client/common/client_assert.h"
#include "common/zdmsg/zdmsg_wire.h"

// Wire forms. Integers are big-endian; pad(n) is n + 1 rounded up to the next multiple of 4, and
// the bytes from n to pad(n) are zero.
//
//   INT      | value 4 |
//   STR      | len 4 | data len | zeros to pad(len) |
//   COL      | 00 to FA: len | data len | zeros |           together pad(prefix + len)
//            | FE | len 2    | data len | zeros |
//   FIXED    | type_or_len bytes |
//   ARRAY    | array_cnt 4 | element | element | ...
//   CHUNK    | length 4 |                                    the sender writes the data

namespace {

constexpr const char *kUnit = "zdmsg";

constexpr int64_t kIntSize = sizeof(int32_t);

// Every kind takes up at least this many bytes (the generator sees to it for fixed fields), and
// every element record has a field.
constexpr int64_t kLeastElementSize = 4;

constexpr int kLongestShortColumn = ZDMSG_LONGEST_SHORT_COLUMN;
constexpr int kLongColumnMark = ZDMSG_LONG_COLUMN_MARK;

inline int64_t padded(int64_t length) {
    return zdmsg_padded(length);
}

// Members are reached through memcpy: the tables know their offsets, not their types.
template <class Member>
Member load(const char *member) {
    Member value;
    memcpy(&value, member, sizeof value);
    return value;
}

template <class Member>
void store(char *member, Member value) {
    memcpy(member, &value, sizeof value);
}

// Member by member: between len and data a string has bytes that need no value.
void store_string(char *member, int32_t len, char *data) {
    static_assert(offsetof(zdmsg_str_t, len) == 0);
    store(member, len);
    store(member + offsetof(zdmsg_str_t, data), data);
}

void store_array(char *member, int32_t array_cnt, void *data) {
    static_assert(offsetof(zdmsg_array_t, array_cnt) == 0);
    store(member, array_cnt);
    store(member + offsetof(zdmsg_array_t, data), data);
}

int32_t get_int(const char *bytes) {
    return static_cast<int32_t>(__builtin_bswap32(load<uint32_t>(bytes)));
}

char *put_int(char *at, int32_t value) {
    store(at, __builtin_bswap32(static_cast<uint32_t>(value)));
    return at + kIntSize;
}

// A type that is handed to the codec by mistake must not index past the tables.
const zdmsg_meta_t &meta_of(const zdmsg_t *msg) {
    ZD_ASSERT(kUnit, msg->type >= 0 && msg->type < ZDMSG_TYPE_CNT);
    return _zdmsg_meta[msg->type];
}

const zdmsg_struct_meta_t &struct_meta_of(int struct_type) {
    ZD_ASSERT(kUnit, struct_type >= 0 && struct_type < ZDMSG_STRUCT_CNT);
    return _zdmsg_struct_meta[struct_type];
}

// The walkers take a run of records of one table: the one record of a message, or the elements of
// an array. The kinds that a table may hold differ between the two.
enum class Level { kMessage, kElement };

// Most fields are integers: the walkers ask for them first, and stay with those that follow in a
// loop of their own.
inline zdmsg_field_type_t kind_of(const zdmsg_field_t *field) {
    return static_cast<zdmsg_field_type_t>(__builtin_expect(field->type, ZDMSG_FIELD_INT));
}

inline bool is_int(const zdmsg_field_t *field, const zdmsg_field_t *end) {
    return field != end && field->type == ZDMSG_FIELD_INT;
}

// Integers of a table that are neighbours in the record, as they are on the wire: in many records
// they are worth handling as a whole.
struct IntRun {
    const zdmsg_field_t *first; // nullptr: there is none, or it is not worth finding
    const zdmsg_field_t *last;
    int64_t size; // in bytes, of all together
};

IntRun find_int_run(const zdmsg_struct_meta_t &meta) {
    constexpr int kLongRun = 4;
    const zdmsg_field_t *const end = meta.fields + meta.field_cnt;
    for (const zdmsg_field_t *first = meta.fields; first != end; first++) {
        int count = 0;
        while (is_int(first + count, end) &&
               first[count].offset == first->offset + count * kIntSize)
            count++;
        if (count >= kLongRun)
            return {first, first + count - 1, count * kIntSize};
    }
    return {nullptr, nullptr, 0};
}

inline IntRun int_run_of(const zdmsg_struct_meta_t &meta, int32_t records) {
    constexpr int32_t kManyRecords = 8;
    return records < kManyRecords ? IntRun{nullptr, nullptr, 0} : find_int_run(meta);
}

// Turns size bytes of integers from one byte order into the other, two integers at a time.
inline void copy_swapped(char *to, const char *from, int64_t size) {
    int64_t done = 0;
    for (; done < size - kIntSize; done += 2 * kIntSize) {
        const uint64_t both = __builtin_bswap64(load<uint64_t>(from + done));
        store(to + done, both << 32 | both >> 32);
    }
    if (done < size)
        store(to + done, __builtin_bswap32(load<uint32_t>(from + done)));
}

// ---- Sizes and encoding, which trust the record but for what would run out of its memory

// Only the low 16 bits of a column's len are looked at, so longer values cannot be carried.
int64_t column_prefix_size(int32_t len) {
    return len <= 0 || (len & 0xffff) <= kLongestShortColumn ? 1 : 3;
}

int64_t column_size(int32_t len) {
    return padded(column_prefix_size(len) + (len > 0 ? len : 0));
}

inline zdmsg_str_t checked_string(const char *member) {
    const zdmsg_str_t str = load<zdmsg_str_t>(member);
    ZD_ASSERT(kUnit, str.len >= 0);
    ZD_ASSERT(kUnit, str.len == 0 || str.data != NULL);
    return str;
}

const char *first_element(const zdmsg_array_t &array) {
    ZD_ASSERT(kUnit, array.array_cnt <= 0 || array.data != NULL);
    return static_cast<const char *>(array.data);
}

// Goes field by field through all records, not record by record: where all take up the same, that
// is a product.
template <Level kLevel>
int64_t size_of_records(const char *records, int32_t count, const zdmsg_struct_meta_t &meta) {
    if (count <= 0)
        return 0;
    const int64_t stride = meta.size;
    int64_t size = 0;
    for (int i = 0; i < meta.field_cnt; i++) {
        const zdmsg_field_t &field = meta.fields[i];
        const char *member = records + field.offset;
        switch (field.type) {
        case ZDMSG_FIELD_INT:
            size += count * kIntSize;
            break;
        case ZDMSG_FIELD_STR:
            size += count * kIntSize;
            for (int32_t j = 0; j < count; j++, member += stride)
                size += padded(checked_string(member).len);
            break;
        case ZDMSG_FIELD_COL:
            if (kLevel == Level::kMessage)
                zd_assert_fail("0", kUnit, __LINE__);
            for (int32_t j = 0; j < count; j++, member += stride)
                size += column_size(load<zdmsg_col_t>(member).len);
            break;
        case ZDMSG_FIELD_FIXED:
            size += int64_t{count} * field.type_or_len;
            break;
        case ZDMSG_FIELD_ARRAY:
            size += count * kIntSize;
            for (int32_t j = 0; j < count; j++, member += stride) {
                const zdmsg_array_t array = load<zdmsg_array_t>(member);
                size += size_of_records<Level::kElement>(first_element(array), array.array_cnt,
                                                         _zdmsg_struct_meta[field.type_or_len]);
            }
            break;
        default:
            zd_assert_fail("0", kUnit, __LINE__);
        }
    }
    return size;
}

// The put functions write at a place and return the one behind.

// Most strings, columns and fixed fields are short: up to 16 bytes go without a call, as two words
// that may overlap.
inline void copy(char *to, const char *from, int32_t len) {
    if (len > 16) {
        memcpy(to, from, static_cast<size_t>(len));
    } else if (len >= 8) {
        const uint64_t first = load<uint64_t>(from);
        const uint64_t last = load<uint64_t>(from + len - 8);
        store(to, first);
        store(to + len - 8, last);
    } else if (len >= 4) {
        const uint32_t first = load<uint32_t>(from);
        const uint32_t last = load<uint32_t>(from + len - 4);
        store(to, first);
        store(to + len - 4, last);
    } else {
        for (int32_t i = 0; i < len; i++)
            to[i] = from[i];
    }
}

// Zeroes the last word, which holds all padding, before the data goes over it.
inline char *put_padded(char *start, int64_t prefix_size, const char *data, int32_t len) {
    const int64_t size = padded(prefix_size + len);
    store(start + size - kIntSize, int32_t{0});
    copy(start + prefix_size, data, len);
    return start + size;
}

char *put_string(char *at, const zdmsg_str_t &str) {
    return put_padded(put_int(at, str.len), 0, str.data, str.len);
}

char *put_column(char *at, const zdmsg_col_t &col) {
    const int32_t len = col.len > 0 ? col.len : 0;
    ZD_ASSERT(kUnit, len == 0 || col.data != NULL);
    const int64_t prefix_size = column_prefix_size(len);
    char *const end = put_padded(at, prefix_size, col.data, len);
    if (prefix_size == 1) {
        at[0] = static_cast<char>(len);
    } else {
        at[0] = static_cast<char>(kLongColumnMark);
        at[1] = static_cast<char>(len >> 8);
        at[2] = static_cast<char>(len);
    }
    return end;
}

// Adds to sent_apart what belongs to the body but is not written here: the data of chunks.
template <Level kLevel>
char *put_records(char *at, const char *record, int32_t count, const zdmsg_struct_meta_t &meta,
                  int64_t *sent_apart) {
    const zdmsg_field_t *const fields = meta.fields;
    const zdmsg_field_t *const end = fields + meta.field_cnt;
    const int64_t stride = meta.size;
    const IntRun run = int_run_of(meta, count);
    for (; count > 0; count--, record += stride) {
        for (const zdmsg_field_t *field = fields; field != end; field++) {
            const char *const member = record + field->offset;
            // Apart from the others: after integers, strings are what there is most of.
            if (field->type == ZDMSG_FIELD_STR) {
                at = put_string(at, checked_string(member));
                continue;
            }
            switch (kind_of(field)) {
            case ZDMSG_FIELD_INT:
                if (field == run.first) {
                    copy_swapped(at, member, run.size);
                    at += run.size;
                    field = run.last;
                    break;
                }
                at = put_int(at, load<int32_t>(member));
                while (is_int(field + 1, end))
                    at = put_int(at, load<int32_t>(record + (++field)->offset));
                break;
            case ZDMSG_FIELD_COL:
                if (kLevel == Level::kMessage)
                    zd_assert_fail("0", kUnit, __LINE__);
                at = put_column(at, load<zdmsg_col_t>(member));
                break;
            case ZDMSG_FIELD_FIXED:
                copy(at, member, field->type_or_len);
                at += field->type_or_len;
                break;
            case ZDMSG_FIELD_ARRAY: {
                const zdmsg_array_t array = load<zdmsg_array_t>(member);
                at = put_records<Level::kElement>(put_int(at, array.array_cnt),
                                                  first_element(array), array.array_cnt,
                                                  _zdmsg_struct_meta[field->type_or_len], nullptr);
                break;
            }
            case ZDMSG_FIELD_CHUNK: {
                if (kLevel == Level::kElement)
                    zd_assert_fail("0", kUnit, __LINE__);
                const int32_t chunk_len = load<int32_t>(member);
                ZD_ASSERT(kUnit, chunk_len >= 0);
                at = put_int(at, chunk_len);
                *sent_apart += chunk_len;
                break;
            }
            default:
                zd_assert_fail("0", kUnit, __LINE__);
            }
        }
    }
    return at;
}

// A message as a run of one record.
zdmsg_struct_meta_t as_run(const zdmsg_meta_t &meta) {
    return {meta.field_cnt, meta.fields, 0};
}

void check_target(const char *msg_raw, int offset) {
    ZD_ASSERT(kUnit, msg_raw != NULL);
    if (ZD_UNLIKELY(offset < 0))
        zd_assert_fail("offset != NULL && *offset >= 0", kUnit, __LINE__);
}

// The 16 bytes; the body size is filled in when it is known.
char *put_header(char *at, int32_t type, uint64_t tsn) {
    at = put_int(at, type);
    at = put_int(at, 0);
    store(at, __builtin_bswap64(tsn));
    return at + sizeof tsn;
}

void fill_in_body_size(char *header, uint32_t body_size) {
    put_int(header + offsetof(zdmsg_t, body_size) - offsetof(zdmsg_t, type),
            static_cast<int32_t>(body_size));
}

// ---- Decoding, which trusts no byte

struct Body {
    char *bytes;
    int64_t size;
};

// One decoding run.
struct Decoder {
    allocator_t *alloc;
    const zdmsg_t *msg;
    Body body;
    int64_t claimed; // least number of bytes that elements to come, of arrays being decoded, need
    int depth;       // arrays being decoded
};

// What the checks of a level are called in a report.
struct MessageChecks {
    static constexpr Level kLevel = Level::kMessage;
    static constexpr const char *kFunction = "zdmsg_deserialize_body";
    static constexpr const char *kIntFits = "(offset + sizeof(int)) <= msg->body_size";
    static constexpr const char *kLenFits =
        "(offset + meta->fields[i].type_or_len) <= msg->body_size";
    static constexpr const char *kWithin = "offset <= msg->body_size";
    static constexpr const char *kRecordType = "msg->type";
    static constexpr const char *kOffset = "offset";
    static constexpr const char *kBodySize = "msg->body_size";
    static constexpr const char *kFieldType = "meta->fields[i].type";
    static constexpr const char *kFieldLen = "meta->fields[i].type_or_len";
};

struct ElementChecks {
    static constexpr Level kLevel = Level::kElement;
    static constexpr const char *kFunction = "zdmsg_struct_deserialize";
    static constexpr const char *kIntFits = "(*offset + sizeof(int)) <= body_size";
    static constexpr const char *kLenFits =
        "(*offset + struct_meta->fields[i].type_or_len) <= body_size";
    static constexpr const char *kWithin = "*offset <= body_size";
    static constexpr const char *kRecordType = "struct_type";
    static constexpr const char *kOffset = "*offset";
    static constexpr const char *kBodySize = "body_size";
    static constexpr const char *kFieldType = "struct_meta->fields[i].type";
    static constexpr const char *kFieldLen = "struct_meta->fields[i].type_or_len";
};

constexpr const char *kIntFitsRecord =
    "(struct_meta->fields[i].offset + (int)sizeof(int)) <= struct_size";
constexpr const char *kLenFitsRecord =
    "(struct_meta->fields[i].offset + struct_meta->fields[i].type_or_len) <= struct_size";

// A variable in a report of a failed check.
struct Detail {
    const char *name;
    int value;
};

constexpr int kMaxDetails = 9;

// Where a decoder stands, for its reports: record j of a run, a field of the table.
struct Place {
    const Decoder *decoder;
    int64_t offset;
    int type;
    const zdmsg_field_t *field;
    const zdmsg_field_t *fields;
    int j;

    [[nodiscard]] int i() const { return static_cast<int>(field - fields); }
    [[nodiscard]] Place moved_to(int64_t new_offset) const {
        return {decoder, new_offset, type, field, fields, j};
    }
};

[[noreturn, gnu::cold, gnu::noinline]] void report(const zdmsg_t *msg, const char *condition,
                                                   int line, const char *function,
                                                   const Detail *details, int count) {
    Detail d[kMaxDetails] = {};
    for (int k = 0; k < count; k++)
        d[k] = details[k];
    constexpr int size = sizeof(int);
    zd_assert_msg_detail(condition, count, kUnit, line, function, d[0].name, size, d[0].value,
                         d[1].name, size, d[1].value, d[2].name, size, d[2].value, d[3].name, size,
                         d[3].value, d[4].name, size, d[4].value, d[5].name, size, d[5].value,
                         d[6].name, size, d[6].value, d[7].name, size, d[7].value, d[8].name, size,
                         d[8].value);
    zd_asserted_zdmsg_dump(msg);
    zd_thr_assert_cmd();
}

// Reports a failed check: where the decoder stands, and the details that the check looked at.
template <class Checks>
[[noreturn, gnu::cold, gnu::noinline]] void fail(Place place, const char *condition, int line,
                                                 std::initializer_list<Detail> looked_at = {}) {
    const Decoder &decoder = *place.decoder;
    Detail details[kMaxDetails];
    int count = 0;
    details[count++] = {"i", place.i()};
    if (Checks::kLevel == Level::kElement)
        details[count++] = {"j", place.j};
    details[count++] = {Checks::kRecordType, place.type};
    details[count++] = {Checks::kOffset, static_cast<int>(place.offset)};
    details[count++] = {Checks::kBodySize, static_cast<int>(decoder.body.size)};
    for (const Detail &detail : looked_at)
        details[count++] = detail;
    report(decoder.msg, condition, line, Checks::kFunction, details, count);
}

template <class Checks>
[[noreturn, gnu::cold, gnu::noinline]] void fail_kind(Place place, int kind, int line) {
    const Detail details[] = {
        {Checks::kFieldType, kind}, {"i", place.i()}, {Checks::kRecordType, place.type}};
    report(place.decoder->msg, "0", line, Checks::kFunction, details, 3);
}

// Before a field that starts with an integer: the body has it and, in an element, the record has
// room. The line is the caller's.
template <class Checks>
inline void check_int(Place place, Body body, const zdmsg_field_t &field, int struct_size,
                      int line) {
    if (ZD_UNLIKELY(place.offset > body.size - kIntSize))
        fail<Checks>(place, Checks::kIntFits, line);
    if (Checks::kLevel == Level::kElement && ZD_UNLIKELY(field.offset > struct_size - kIntSize))
        fail<Checks>(
            place, kIntFitsRecord, line,
            {{"struct_meta->fields[i].offset", field.offset}, {"struct_size", struct_size}});
}

// The same before a fixed field.
template <class Checks>
inline void check_fixed(Place place, Body body, const zdmsg_field_t &field, int struct_size,
                        int line) {
    const int64_t len = field.type_or_len;
    if (ZD_UNLIKELY(place.offset > body.size - len))
        fail<Checks>(place, Checks::kLenFits, line, {{Checks::kFieldLen, field.type_or_len}});
    if (Checks::kLevel == Level::kElement && ZD_UNLIKELY(field.offset > struct_size - len))
        fail<Checks>(place, kLenFitsRecord, line,
                     {{Checks::kFieldLen, field.type_or_len},
                      {"struct_meta->fields[i].offset", field.offset},
                      {"struct_size", struct_size}});
}

// The take functions move offset on. False when the string is not whole; a negative length is none.
inline bool take_string(Body body, int64_t &offset, char *member, int32_t &str_len) {
    str_len = get_int(body.bytes + offset);
    offset += kIntSize;
    store_string(member, str_len, body.bytes + offset);
    offset += padded(str_len);
    return str_len >= 0 && offset <= body.size;
}

// False when the column is not whole. The member keeps the prefix.
inline bool take_column(Body body, int64_t &offset, char *member, int32_t &col_len) {
    int32_t prefix_size;
    const int32_t len = zdmsg_column_len(body.bytes + offset, body.size - offset, &prefix_size);
    col_len = prefix_size + len;
    store_string(member, col_len, body.bytes + offset);
    offset += padded(col_len);
    return offset <= body.size;
}

int64_t decode_elements(Decoder &decoder, int64_t offset, char *member, int32_t count,
                        int struct_type);

// Fills count records from the bytes at offset; returns where they end. The records lie stride
// bytes apart; at 0 they have claimed nothing. type is the number of the table, struct_size the
// room for one record.
//
// Before every field offset <= body_size holds: each check stands before the next read.
template <class Checks>
int64_t decode_records(Decoder &decoder, int64_t offset, char *record, int32_t count,
                       int64_t stride, int type, const zdmsg_struct_meta_t &meta, int struct_size) {
    constexpr bool kNested = Checks::kLevel == Level::kElement;
    const Body body = decoder.body;
    const zdmsg_field_t *const fields = meta.fields;
    const zdmsg_field_t *const end = fields + meta.field_cnt;
    const IntRun run = int_run_of(meta, count);
    for (int32_t j = 0; j < count; j++, record += stride) {
        if (stride != 0)
            decoder.claimed -= kLeastElementSize;
        for (const zdmsg_field_t *field = fields; field != end; field++) {
            char *const member = record + field->offset;
            const Place place = {&decoder, offset, type, field, fields, j};
            int32_t len;
            // Apart from the others: after integers, strings are what there is most of.
            if (field->type == ZDMSG_FIELD_STR) {
                check_int<Checks>(place, body, *field, struct_size, __LINE__);
                if (ZD_UNLIKELY(!take_string(body, offset, member, len)))
                    fail<Checks>(place.moved_to(offset), Checks::kWithin, __LINE__,
                                 {{"str_len", len}});
                continue;
            }
            switch (kind_of(field)) {
            case ZDMSG_FIELD_INT:
                // A run that does not fit is taken integer by integer, up to the one that fails.
                if (field == run.first && offset <= body.size - run.size &&
                    field->offset <= struct_size - run.size) {
                    copy_swapped(member, body.bytes + offset, run.size);
                    offset += run.size;
                    field = run.last;
                    break;
                }
                check_int<Checks>(place, body, *field, struct_size, __LINE__);
                store(member, get_int(body.bytes + offset));
                offset += kIntSize;
                while (is_int(field + 1, end)) {
                    field++;
                    check_int<Checks>({&decoder, offset, type, field, fields, j}, body, *field,
                                      struct_size, __LINE__);
                    store(record + field->offset, get_int(body.bytes + offset));
                    offset += kIntSize;
                }
                break;
            case ZDMSG_FIELD_COL:
                if (!kNested)
                    fail_kind<Checks>(place, field->type, __LINE__);
                if (ZD_UNLIKELY(!take_column(body, offset, member, len)))
                    fail<Checks>(place.moved_to(offset), Checks::kWithin, __LINE__,
                                 {{"str_len", len}});
                break;
            case ZDMSG_FIELD_FIXED:
                len = field->type_or_len;
                check_fixed<Checks>(place, body, *field, struct_size, __LINE__);
                copy(member, body.bytes + offset, len);
                offset += len;
                break;
            case ZDMSG_FIELD_ARRAY:
                check_int<Checks>(place, body, *field, struct_size, __LINE__);
                len = get_int(body.bytes + offset);
                offset += kIntSize;
                store_array(member, len, nullptr);
                if (len <= 0)
                    break;
                if (ZD_UNLIKELY(decoder.depth == ZDMSG_MAX_NESTING))
                    fail<Checks>(place.moved_to(offset), "depth < ZDMSG_MAX_NESTING", __LINE__,
                                 {{"depth", decoder.depth}});
                offset = decode_elements(decoder, offset, member, len, field->type_or_len);
                break;
            default:
                fail_kind<Checks>(place, field->type, __LINE__);
            }
        }
    }
    return offset;
}

// Obtains the elements of an array and decodes them.
//
// When count is more than the rest of the body can hold, some element is bound to fail a check. Up
// to there all of them are decoded over one another into a single one: whatever a body claims, what
// is allocated for it stays linear in its bytes.
int64_t decode_elements(Decoder &decoder, int64_t offset, char *member, int32_t count,
                        int struct_type) {
    const zdmsg_struct_meta_t &meta = _zdmsg_struct_meta[struct_type];
    const int64_t least = count * kLeastElementSize;
    const bool can_fit = decoder.claimed + least <= decoder.body.size - offset;
    const int64_t size = (can_fit ? count : 1) * int64_t{meta.size};
    char *const data = static_cast<char *>(zd_malloc(decoder.alloc, size, kUnit, __LINE__));
    store_array(member, count, data);
    decoder.claimed += can_fit ? least : 0;
    decoder.depth++;
    offset = decode_records<ElementChecks>(decoder, offset, data, count, can_fit ? meta.size : 0,
                                           struct_type, meta, meta.size);
    decoder.depth--;
    return offset;
}

// ---- Release

bool holds_arrays(const zdmsg_struct_meta_t &meta) {
    for (int i = 0; i < meta.field_cnt; i++)
        if (meta.fields[i].type == ZDMSG_FIELD_ARRAY)
            return true;
    return false;
}

void free_array(allocator_t *alloc, const zdmsg_array_t &array, int struct_type) {
    if (array.data == nullptr || array.array_cnt < 0)
        return;
    const zdmsg_struct_meta_t &meta = _zdmsg_struct_meta[struct_type];
    if (holds_arrays(meta)) {
        char *element = static_cast<char *>(array.data);
        for (int32_t j = 0; j < array.array_cnt; j++, element += meta.size)
            zdmsg_struct_free(alloc, element, struct_type);
    }
    zd_free(alloc, array.data, kUnit, __LINE__);
}

// ---- Comparison

// Prints where the first difference is, then leaves the rest of the line to the caller.
void print_place(const zdmsg_t *msg, int field_number) {
    fprintf(stderr, "msg type = %d , field number = %d\n", msg->type, field_number);
}

bool equal_values(const zdmsg_t *msg, int field_number, int expected, int actual) {
    if (expected == actual)
        return true;
    print_place(msg, field_number);
    fprintf(stderr, "expected value = %d, actual value = %d\n", expected, actual);
    return false;
}

// Prints no further than the bytes go: they need not be terminated.
bool equal_bytes(const zdmsg_t *msg, int field_number, int len, const char *expected,
                 const char *actual) {
    if (len <= 0 || memcmp(expected, actual, static_cast<size_t>(len)) == 0)
        return true;
    print_place(msg, field_number);
    fprintf(stderr, "expected value = %.*s,\n actual value = %.*s\n", len, expected, len, actual);
    return false;
}

bool equal_strings(const zdmsg_t *msg, int field_number, const zdmsg_str_t &expected,
                   const zdmsg_str_t &actual) {
    return equal_values(msg, field_number, expected.len, actual.len) &&
           equal_bytes(msg, field_number, expected.len, expected.data, actual.data);
}

bool equal_fields(const zdmsg_t *msg, const zdmsg_field_t *fields, int field_cnt,
                  const char *expected, const char *actual);

bool equal_arrays(const zdmsg_t *msg, int field_number, const zdmsg_array_t &expected,
                  const zdmsg_array_t &actual, int struct_type) {
    if (expected.array_cnt != actual.array_cnt) {
        print_place(msg, field_number);
        fprintf(stderr,
                "expected array size = %d,                                  "
                "actual array size = %d\n",
                expected.array_cnt, actual.array_cnt);
        return false;
    }
    const zdmsg_struct_meta_t &meta = _zdmsg_struct_meta[struct_type];
    const char *first = static_cast<const char *>(expected.data);
    const char *second = static_cast<const char *>(actual.data);
    for (int32_t j = 0; j < expected.array_cnt; j++, first += meta.size, second += meta.size)
        if (!equal_fields(msg, meta.fields, meta.field_cnt, first, second))
            return false;
    return true;
}

bool equal_fields(const zdmsg_t *msg, const zdmsg_field_t *fields, int field_cnt,
                  const char *expected, const char *actual) {
    for (int i = 0; i < field_cnt; i++) {
        const zdmsg_field_t &field = fields[i];
        const char *const first = expected + field.offset;
        const char *const second = actual + field.offset;
        bool equal = true;
        switch (field.type) {
        case ZDMSG_FIELD_INT:
            equal = equal_values(msg, i, load<int32_t>(first), load<int32_t>(second));
            break;
        case ZDMSG_FIELD_STR:
        case ZDMSG_FIELD_COL:
            equal = equal_strings(msg, i, load<zdmsg_str_t>(first), load<zdmsg_str_t>(second));
            break;
        case ZDMSG_FIELD_FIXED:
            equal = equal_bytes(msg, i, field.type_or_len, first, second);
            break;
        case ZDMSG_FIELD_ARRAY:
            equal = equal_arrays(msg, i, load<zdmsg_array_t>(first), load<zdmsg_array_t>(second),
                                 field.type_or_len);
            break;
        case ZDMSG_FIELD_CHUNK:
            break;
        default:
            zd_assert_fail("0", kUnit, __LINE__);
        }
        if (!equal)
            return false;
    }
    return true;
}

} // namespace

void zdmsg_serialize(allocator_t *, zdmsg_t *msg, char *buffer) {
    ZD_ASSERT(kUnit, msg != NULL);
    msg->raw = buffer;
    check_target(msg->raw, 0);
    put_header(msg->raw, msg->type, msg->tsn);
    zdmsg_serialize_body(msg, ZDMSG_HDR_SIZE);
    fill_in_body_size(msg->raw, msg->body_size);
}

int64_t zdmsg_get_msg_raw_size(const zdmsg_t *msg) {
    ZD_ASSERT(kUnit, msg != NULL);
    return ZDMSG_HDR_SIZE + size_of_records<Level::kMessage>(reinterpret_cast<const char *>(msg), 1,
                                                             as_run(meta_of(msg)));
}

void zdmsg_serialize_body(zdmsg_t *msg, int offset) {
    ZD_ASSERT(kUnit, msg != NULL);
    ZD_ASSERT(kUnit, msg->raw != NULL);
    msg->body_size = 0;
    const zdmsg_meta_t &meta = meta_of(msg);
    if (meta.field_cnt == 0)
        return;
    check_target(msg->raw, offset);
    char *const start = msg->raw + offset;
    int64_t sent_apart = 0;
    char *const end = put_records<Level::kMessage>(start, reinterpret_cast<const char *>(msg), 1,
                                                   as_run(meta), &sent_apart);
    const int64_t body_size = end - start + sent_apart;
    ZD_ASSERT(kUnit, body_size <= UINT32_MAX);
    msg->body_size = static_cast<uint32_t>(body_size);
}

void zdmsg_deserialize_body(allocator_t *alloc, zdmsg_t *msg, char *buffer) {
    ZD_ASSERT(kUnit, msg != NULL);
    ZD_ASSERT(kUnit, buffer != NULL);
    msg->raw = buffer;
    msg->str_auto_free = 0;
    Decoder decoder = {alloc, msg, {buffer, msg->body_size}, 0, 0};
    decode_records<MessageChecks>(decoder, 0, reinterpret_cast<char *>(msg), 1, 0, msg->type,
                                  as_run(meta_of(msg)), 0);
}

void zdmsg_struct_deserialize(allocator_t *alloc, zdmsg_t *msg, int *offset, void *record,
                              int struct_size, int struct_type) {
    ZD_ASSERT(kUnit, msg != NULL);
    if (ZD_UNLIKELY(msg->raw == nullptr))
        zd_assert_fail("msg_raw != NULL", kUnit, __LINE__);
    if (ZD_UNLIKELY(record == nullptr))
        zd_assert_fail("val != NULL", kUnit, __LINE__);
    ZD_ASSERT(kUnit, offset != NULL && *offset >= 0);
    const zdmsg_struct_meta_t &meta = struct_meta_of(struct_type);
    Decoder decoder = {alloc, msg, {msg->raw, msg->body_size}, 0, 0};
    if (ZD_UNLIKELY(*offset > decoder.body.size))
        fail<ElementChecks>({&decoder, *offset, struct_type, meta.fields, meta.fields, 0},
                            ElementChecks::kWithin, __LINE__);
    *offset = static_cast<int>(decode_records<ElementChecks>(
        decoder, *offset, static_cast<char *>(record), 1, 0, struct_type, meta, struct_size));
}

void zdmsg_free(allocator_t *alloc, zdmsg_t *msg) {
    ZD_ASSERT(kUnit, msg != NULL);
    const zdmsg_meta_t &meta = meta_of(msg);
    const char *const record = reinterpret_cast<const char *>(msg);
    for (int i = 0; i < meta.field_cnt; i++) {
        const zdmsg_field_t &field = meta.fields[i];
        const char *const member = record + field.offset;
        switch (kind_of(&field)) {
        case ZDMSG_FIELD_STR:
            if (msg->str_auto_free != 0 && load<zdmsg_str_t>(member).len != 0)
                zd_free(alloc, load<zdmsg_str_t>(member).data, kUnit, __LINE__);
            break;
        case ZDMSG_FIELD_ARRAY:
            free_array(alloc, load<zdmsg_array_t>(member), field.type_or_len);
            break;
        case ZDMSG_FIELD_INT:
        case ZDMSG_FIELD_FIXED:
        case ZDMSG_FIELD_CHUNK:
            break;
        default:
            zd_assert_fail("0", kUnit, __LINE__);
        }
    }
}

void zdmsg_struct_free(allocator_t *alloc, void *record, int struct_type) {
    const zdmsg_struct_meta_t &meta = struct_meta_of(struct_type);
    for (int i = 0; i < meta.field_cnt; i++) {
        const zdmsg_field_t &field = meta.fields[i];
        if (field.type == ZDMSG_FIELD_ARRAY)
            free_array(alloc, load<zdmsg_array_t>(static_cast<char *>(record) + field.offset),
                       field.type_or_len);
    }
}

uchar zdmsg_equals(const zdmsg_t *msg, const zdmsg_t *msg2) {
    ZD_ASSERT(kUnit, msg != NULL && msg2 != NULL);
    if (msg->type != msg2->type) {
        fprintf(stderr, "mock server msg type = %d, client lib msg type = %d\n", msg->type,
                msg2->type);
        return 0;
    }
    if (msg->body_size != msg2->body_size) {
        fprintf(stderr, "mock server msg type = %d, client lib msg type = %d\n",
                static_cast<int>(msg->body_size), static_cast<int>(msg2->body_size));
        return 0;
    }
    const zdmsg_meta_t &meta = meta_of(msg);
    return equal_fields(msg, meta.fields, meta.field_cnt, reinterpret_cast<const char *>(msg),
                        reinterpret_cast<const char *>(msg2));
}

void zdmsg_set_tsn(zdmsg_t *msg, uint64_t tsn) {
    ZD_ASSERT(kUnit, msg != NULL);
    msg->tsn = tsn;
}

int zdmsg_serialize_chunk(char *buffer, const char *, int data_len) {
    check_target(buffer, 0);
    ZD_ASSERT(kUnit, data_len >= 0);
    char *at = put_header(buffer, ZDMSG_TMC_CHUNK, 0);
    at = put_int(at, data_len);
    const size_t offset = static_cast<size_t>(at - buffer);
    ZD_ASSERT(kUnit, offset == ZDMSG_HDR_SIZE + sizeof(int));
    fill_in_body_size(buffer, static_cast<uint32_t>(kIntSize + padded(data_len)));
    return static_cast<int>(padded(data_len) - data_len);
}
