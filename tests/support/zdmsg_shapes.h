// Messages made from the ledger of shapes, without the library's tables: a second opinion on how
// records lie in memory and what their bytes are.

#ifndef TESTS_SUPPORT_ZDMSG_SHAPES_H
#define TESTS_SUPPORT_ZDMSG_SHAPES_H

#include <stdint.h>
#include <string.h>

#include <deque>
#include <string>
#include <vector>

namespace zdmsg_shapes {

struct Field {
    char letter; // i t b c f a
    int number;  // of f the length, of a the record
    size_t offset;
};

struct Shape {
    int number;
    std::string name;
    std::vector<Field> fields;
    size_t size;
};

inline Shape parse(int number, const char *name, const char *letters, bool is_message) {
    Shape shape = {number, name, {}, is_message ? 32u : 0u};
    size_t alignment = is_message ? 8 : 1;
    for (const char *at = letters; *at != '\0'; at += *at == ' ') {
        Field field = {*at++, 0, 0};
        while (*at >= '0' && *at <= '9')
            field.number = field.number * 10 + (*at++ - '0');
        const size_t align = field.letter == 'i' ? 4 : field.letter == 'f' ? 1 : 8;
        const size_t bytes = field.letter == 'i'   ? 4
                             : field.letter == 'f' ? static_cast<size_t>(field.number)
                                                   : 16;
        field.offset = (shape.size + align - 1) / align * align;
        shape.size = field.offset + bytes;
        alignment = align > alignment ? align : alignment;
        shape.fields.push_back(field);
    }
    shape.size = (shape.size + alignment - 1) / alignment * alignment;
    return shape;
}

inline const std::vector<Shape> &records() {
    static const std::vector<Shape> all = {
#define RECORD(number, name, letters) parse(number, #name, letters, false),
#define MESSAGE(number, name, letters)
#include "support/zdmsg_shapes.inc"
#undef RECORD
#undef MESSAGE
    };
    return all;
}

inline const std::vector<Shape> &messages() {
    static const std::vector<Shape> all = {
#define RECORD(number, name, letters)
#define MESSAGE(number, name, letters) parse(number, #name, letters, true),
#include "support/zdmsg_shapes.inc"
#undef RECORD
#undef MESSAGE
    };
    return all;
}

inline std::string big_endian(uint32_t value) {
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

inline std::string padded(std::string bytes) {
    do
        bytes.push_back('\0');
    while (bytes.size() % 4 != 0);
    return bytes;
}

inline std::string string_bytes(const std::string &data) {
    return big_endian(static_cast<uint32_t>(data.size())) + padded(data);
}

inline std::string column_with_prefix(const std::string &data) {
    if (data.size() <= 250)
        return static_cast<char>(data.size()) + data;
    return std::string{'\xFE', static_cast<char>(data.size() >> 8),
                       static_cast<char>(data.size())} +
           data;
}

// A length or count in a body: of a string, of an array, or the prefix of a column.
struct Length {
    size_t offset;
    size_t size; // 4, or of a column's prefix 1 or 3
    uint32_t value;
};

// A filled message, in memory and as the bytes of its body.
class Sample {
  public:
    explicit Sample(const Shape &message) : shape_(message), record_(message.size / 8, 0) {
        fill(record(), message, 0);
    }

    [[nodiscard]] char *record() { return reinterpret_cast<char *>(record_.data()); }
    [[nodiscard]] const std::string &body() const { return body_; }
    [[nodiscard]] const std::vector<Length> &lengths() const { return lengths_; }
    [[nodiscard]] const Shape &shape() const { return shape_; }

    // What is wrong with a decoded record; empty when it holds this sample's values.
    std::string difference(const char *decoded) {
        return differ(record(), decoded, shape_, shape_.name);
    }

  private:
    struct Run {
        int32_t count;
        char *data;
    };

    template <class Value>
    static void put(char *at, Value value) {
        memcpy(at, &value, sizeof value);
    }

    template <class Value>
    static Value get(const char *at) {
        Value value;
        memcpy(&value, at, sizeof value);
        return value;
    }

    char *keep(const std::string &bytes) {
        kept_.emplace_back(bytes.begin(), bytes.end());
        return kept_.back().data();
    }

    std::string next_data() {
        static const size_t lengths[] = {0, 1, 3, 4, 5, 8, 11, 251};
        std::string data;
        const size_t length = lengths[count_ % 8];
        while (data.size() < length)
            data.push_back(static_cast<char>('A' + (count_ + data.size()) % 50));
        return data;
    }

    static size_t length_size(const Field &field, size_t data_size) {
        return field.letter != 'c' ? 4 : data_size <= 250 ? 1 : 3;
    }

    void fill(char *record, const Shape &shape, int depth) {
        for (const Field &field : shape.fields) {
            char *const member = record + field.offset;
            count_++;
            if (field.letter == 'i') {
                const int32_t value = static_cast<int32_t>(0x9E3779B9u * count_);
                put(member, value);
                body_ += big_endian(static_cast<uint32_t>(value));
            } else if (field.letter == 'f') {
                for (int k = 0; k < field.number; k++)
                    member[k] = static_cast<char>(count_ + static_cast<uint32_t>(k) * 7);
                body_.append(member, static_cast<size_t>(field.number));
            } else if (field.letter == 'a') {
                fill_array(member, records()[static_cast<size_t>(field.number)], depth);
            } else {
                const std::string data = next_data();
                put(member,
                    Run{static_cast<int32_t>(data.size()), data.empty() ? nullptr : keep(data)});
                lengths_.push_back({body_.size(), length_size(field, data.size()),
                                    static_cast<uint32_t>(data.size())});
                body_ +=
                    field.letter == 'c' ? padded(column_with_prefix(data)) : string_bytes(data);
            }
        }
    }

    void fill_array(char *member, const Shape &element, int depth) {
        const int32_t count = depth < 3 ? 1 + static_cast<int32_t>(count_ % 2) : 0;
        arrays_.emplace_back(static_cast<size_t>(count) * element.size / 4 + 2, 0);
        char *const data = reinterpret_cast<char *>(arrays_.back().data());
        put(member, Run{count, count > 0 ? data : nullptr});
        lengths_.push_back({body_.size(), 4, static_cast<uint32_t>(count)});
        body_ += big_endian(static_cast<uint32_t>(count));
        for (int32_t k = 0; k < count; k++)
            fill(data + static_cast<size_t>(k) * element.size, element, depth + 1);
    }

    std::string differ(const char *mine, const char *decoded, const Shape &shape,
                       const std::string &path) {
        for (size_t k = 0; k < shape.fields.size(); k++) {
            const Field &field = shape.fields[k];
            const std::string where = path + "[" + std::to_string(k) + "]";
            const char *const expected = mine + field.offset;
            const char *const actual = decoded + field.offset;
            if (field.letter == 'i' || field.letter == 'f') {
                const size_t size = field.letter == 'i' ? 4 : static_cast<size_t>(field.number);
                if (memcmp(expected, actual, size) != 0)
                    return where + " differs";
            } else if (field.letter == 'a') {
                const Run run = get<Run>(expected);
                const Run other = get<Run>(actual);
                const Shape &element = records()[static_cast<size_t>(field.number)];
                if (run.count != other.count || (run.count == 0) != (other.data == nullptr))
                    return where + " has another count or no data";
                for (int32_t j = 0; j < run.count; j++) {
                    const size_t at = static_cast<size_t>(j) * element.size;
                    std::string found =
                        differ(run.data + at, other.data + at, element, where + element.name);
                    if (!found.empty())
                        return found;
                }
            } else {
                const Run run = get<Run>(expected);
                const Run other = get<Run>(actual);
                std::string data(run.data == nullptr ? "" : run.data,
                                 static_cast<size_t>(run.count));
                if (field.letter == 'c')
                    data = column_with_prefix(data);
                if (std::string(other.data, static_cast<size_t>(other.count)) != data)
                    return where + " holds other bytes";
            }
        }
        return "";
    }

    const Shape &shape_;
    std::vector<uint64_t> record_;
    std::deque<std::vector<char>> kept_;
    std::deque<std::vector<uint32_t>> arrays_;
    std::string body_;
    std::vector<Length> lengths_;
    uint32_t count_ = 0;
};

} // namespace zdmsg_shapes

#endif
