#include "common/zdmsg/zdmsg_validate.h"

#include <string.h>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_names_gen.h"
#include "common/zdmsg/zdmsg_wire.h"

namespace {

constexpr const char *kReasons[] = {
    "the body is well-formed",
    "no message has this type",
    "there are no bytes",
    "the body is longer than a header can say",
    "the body ends inside the field",
    "the length is negative",
    "the length leads past the end of the body",
    "the arrays are nested deeper than the decoder goes",
    "the field is of a kind that cannot be decoded",
    "the body is longer than the limit",
    "the arrays hold more elements than the limit",
    "the arrays are nested deeper than the limit",
};
static_assert(sizeof kReasons / sizeof *kReasons == ZDMSG_FLAW_NESTING_LIMIT + 1);

constexpr int kMessageLevel = -1;

// A field that is being walked, and the array field around its record.
struct Place {
    const Place *outer; // nullptr at the fields of the message
    int msg_type;
    int struct_type; // kMessageLevel at the fields of the message
    int field;
    int32_t element; // of the outer array

    [[nodiscard]] const char *name() const {
        return struct_type == kMessageLevel ? zdmsg_field_name(msg_type, field)
                                            : zdmsg_struct_field_name(struct_type, field);
    }
};

// A path is written from its end, so that its end is what is kept when there is no room for all.
class PathWriter {
  public:
    explicit PathWriter(char *path) : path_(path) { *--start_ = '\0'; }

    void finish() {
        if (cut_) {
            // What was put last may have left no room for the dots.
            start_ = start_ - buffer_ < kDots ? buffer_ + kDots : start_;
            start_ -= kDots;
            memcpy(start_, "...", kDots);
        }
        memcpy(path_, start_, static_cast<size_t>(buffer_ + sizeof buffer_ - start_));
    }

    void put(const char *text, size_t length) {
        if (cut_ || length > static_cast<size_t>(start_ - buffer_)) {
            cut_ = true;
            return;
        }
        start_ -= length;
        memcpy(start_, text, length);
    }

    void put_name(const char *name) { put(name, strlen(name)); }

    void put_index(int32_t index) {
        put("]", 1);
        do {
            const char digit = static_cast<char>('0' + index % 10);
            put(&digit, 1);
            index /= 10;
        } while (index != 0);
        put("[", 1);
    }

  private:
    static constexpr int kDots = 3;
    char *path_;
    char buffer_[ZDMSG_FLAW_PATH_SIZE];
    char *start_ = buffer_ + sizeof buffer_;
    bool cut_ = false;
};

void write_path(char *path, const Place *place) {
    PathWriter writer(path);
    for (; place != nullptr; place = place->outer) {
        writer.put_name(place->name());
        if (place->outer != nullptr) {
            writer.put(".", 1);
            writer.put_index(place->element);
        }
    }
    writer.finish();
}

// The same walk as the decoder's (zdmsg.cpp), without a record to fill.
class Walk {
  public:
    Walk(int msg_type, const char *bytes, int64_t size, const zdmsg_limits_t &limits,
         zdmsg_flaw_t *flaw)
        : msg_type_(msg_type), bytes_(bytes), size_(size), limits_(limits), flaw_(flaw) {}

    bool accepts() {
        const zdmsg_meta_t &meta = _zdmsg_meta[msg_type_];
        Place place = {nullptr, msg_type_, kMessageLevel, 0, 0};
        return take_fields(&place, meta.fields, meta.field_cnt);
    }

  private:
    // False when there is a flaw, which is then described.
    bool take_fields(Place *place, const zdmsg_field_t *fields, int field_cnt) {
        for (place->field = 0; place->field < field_cnt; place->field++)
            if (!take_field(place, fields[place->field]))
                return false;
        return true;
    }

    bool take_field(const Place *place, const zdmsg_field_t &field) {
        const bool nested = place->struct_type != kMessageLevel;
        switch (field.type) {
        case ZDMSG_FIELD_INT:
            return take_bytes(place, ZDMSG_INT_SIZE);
        case ZDMSG_FIELD_STR:
            return take_string(place);
        case ZDMSG_FIELD_COL:
            return nested ? take_column(place) : fail(place, ZDMSG_FLAW_TABLE, 0, 0);
        case ZDMSG_FIELD_FIXED:
            return take_bytes(place, field.type_or_len);
        case ZDMSG_FIELD_ARRAY:
            return take_array(place, field.type_or_len);
        default:
            return fail(place, ZDMSG_FLAW_TABLE, 0, 0);
        }
    }

    bool take_bytes(const Place *place, int64_t count) {
        if (count > left())
            return fail(place, ZDMSG_FLAW_CUT, count, left());
        offset_ += count;
        return true;
    }

    bool take_string(const Place *place) {
        if (!take_bytes(place, ZDMSG_INT_SIZE))
            return false;
        const int32_t length = last_int();
        if (length < 0)
            return fail_at_last_int(place, ZDMSG_FLAW_NEGATIVE_LENGTH, length, 0);
        const int64_t padded = zdmsg_padded(length);
        if (padded > left())
            return fail_at_last_int(place, ZDMSG_FLAW_LENGTH, padded, left());
        offset_ += padded;
        return true;
    }

    bool take_column(const Place *place) {
        int32_t prefix_size;
        const int32_t length = zdmsg_column_len(bytes_ + offset_, left(), &prefix_size);
        const int64_t padded = zdmsg_padded(prefix_size + length);
        if (padded > left())
            return fail(place, ZDMSG_FLAW_LENGTH, padded, left());
        offset_ += padded;
        return true;
    }

    bool take_array(const Place *place, int struct_type) {
        if (!take_bytes(place, ZDMSG_INT_SIZE))
            return false;
        const int32_t count = last_int();
        if (count <= 0)
            return true;
        if (limits_.nesting > 0 && depth_ >= limits_.nesting)
            return fail_at_last_int(place, ZDMSG_FLAW_NESTING_LIMIT, depth_ + 1, limits_.nesting);
        if (depth_ >= ZDMSG_MAX_NESTING)
            return fail_at_last_int(place, ZDMSG_FLAW_NESTING, depth_ + 1, ZDMSG_MAX_NESTING);
        elements_ += count;
        if (limits_.elements > 0 && elements_ > limits_.elements)
            return fail_at_last_int(place, ZDMSG_FLAW_ELEMENTS_LIMIT, elements_, limits_.elements);
        return take_elements(place, count, struct_type);
    }

    // Every element takes up bytes, so a count that promises too much ends where the body does.
    bool take_elements(const Place *array, int32_t count, int struct_type) {
        const zdmsg_struct_meta_t &meta = _zdmsg_struct_meta[struct_type];
        depth_++;
        Place place = {array, msg_type_, struct_type, 0, 0};
        for (; place.element < count; place.element++)
            if (!take_fields(&place, meta.fields, meta.field_cnt))
                return false;
        depth_--;
        return true;
    }

    [[nodiscard]] int64_t left() const { return size_ - offset_; }

    [[nodiscard]] int32_t last_int() const {
        return zdmsg_read_int(bytes_ + offset_ - ZDMSG_INT_SIZE);
    }

    bool fail_at_last_int(const Place *place, zdmsg_flaw_kind_t kind, int64_t found,
                          int64_t allowed) {
        offset_ -= ZDMSG_INT_SIZE;
        return fail(place, kind, found, allowed);
    }

    [[gnu::cold, gnu::noinline]] bool fail(const Place *place, zdmsg_flaw_kind_t kind,
                                           int64_t found, int64_t allowed) {
        if (flaw_ != nullptr) {
            *flaw_ = {kind, kReasons[kind], offset_, found, allowed, ""};
            write_path(flaw_->path, place);
        }
        return false;
    }

    int msg_type_;
    const char *bytes_;
    int64_t size_;
    zdmsg_limits_t limits_;
    zdmsg_flaw_t *flaw_;
    int64_t offset_ = 0; // never beyond size_
    int64_t elements_ = 0;
    int depth_ = 0;
};

// What is wrong with the whole of it; no field is to blame.
zdmsg_flaw_t flaw_of_whole(int msg_type, const char *bytes, size_t size, int64_t bytes_limit) {
    const auto flaw = [](zdmsg_flaw_kind_t kind, int64_t offset, int64_t found, int64_t allowed) {
        return zdmsg_flaw_t{kind, kReasons[kind], offset, found, allowed, ""};
    };
    if (msg_type < 0 || msg_type >= ZDMSG_TYPE_CNT)
        return flaw(ZDMSG_FLAW_TYPE, 0, msg_type, ZDMSG_TYPE_CNT - 1);
    if (bytes == nullptr)
        return flaw(ZDMSG_FLAW_NO_BYTES, 0, 0, 0);
    if (size > UINT32_MAX)
        return flaw(ZDMSG_FLAW_SIZE, UINT32_MAX, static_cast<int64_t>(size), UINT32_MAX);
    if (bytes_limit > 0 && static_cast<int64_t>(size) > bytes_limit)
        return flaw(ZDMSG_FLAW_BYTES_LIMIT, bytes_limit, static_cast<int64_t>(size), bytes_limit);
    return flaw(ZDMSG_FLAW_NONE, 0, 0, 0);
}

} // namespace

uchar zdmsg_validate(int msg_type, const char *bytes, size_t size, const zdmsg_limits_t *limits,
                     zdmsg_flaw_t *flaw) {
    const zdmsg_limits_t held = limits != nullptr ? *limits : zdmsg_limits_t{0, 0, 0};
    const zdmsg_flaw_t whole = flaw_of_whole(msg_type, bytes, size, held.bytes);
    if (flaw != nullptr)
        *flaw = whole;
    if (whole.kind != ZDMSG_FLAW_NONE)
        return 0;
    return Walk(msg_type, bytes, static_cast<int64_t>(size), held, flaw).accepts() ? 1 : 0;
}
