// Bodies that lie: for every message, cut anywhere, and with every length and count replaced. The
// decoder accepts or refuses, but reads and writes nothing outside; zdmsg_validate knows beforehand
// which, and where.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_validate.h"
#include "support/guarded_bytes.h"
#include "support/hostile.h"
#include "support/zdmsg_shapes.h"

namespace {

using zdmsg_shapes::big_endian;
using zdmsg_shapes::Length;
using zdmsg_shapes::Sample;

// What an element record takes in memory for a byte on the wire, at most.
constexpr int64_t kMostMemoryPerByte = 18;

// The value of a variable in a report.
int variable(const std::string &report, const std::string &name) {
    const size_t at = report.find("\n\t" + name + " = ");
    EXPECT_NE(at, std::string::npos) << name << " is not in " << report;
    return at == std::string::npos ? 0 : std::stoi(report.substr(at + name.size() + 5));
}

bool holds(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

class ZdmsgHostile : public testing::Test {
  protected:
    // Runs one body through both, several times, and compares.
    void check(int type, const std::string &body) {
        hostile_.alloc.total = 0;
        const bool refused = hostile_.refuses_behind_a_guard(type, body);
        const bool valid = validates(type, body, hostile_.bytes());
        ASSERT_EQ(hostile_.refuses(type, body), refused);
        ASSERT_EQ(validates(type, body, hostile_.bytes()), valid);
        ASSERT_EQ(valid, !refused) << flaw_.reason << " at " << flaw_.offset << "\n"
                                   << hostile_.report();
        ASSERT_LE(hostile_.alloc.total, static_cast<int64_t>(body.size()) * 2 * kMostMemoryPerByte);
        refused ? compare_places(body) : use_what_was_decoded();
        runs_++;
        refused_ += refused;
    }

    bool validates(int type, const std::string &body, const char *bytes) {
        return zdmsg_validate(type, bytes, body.size(), nullptr, &flaw_) == 1;
    }

    void use_what_was_decoded() {
        ASSERT_EQ(zdmsg_equals(hostile_.msg(), hostile_.msg()), 1); // reads every byte
        zdmsg_free(hostile_.alloc.get(), hostile_.msg());
        ASSERT_EQ(hostile_.alloc.still_out(), 0u);
        ASSERT_EQ(flaw_.kind, ZDMSG_FLAW_NONE);
    }

    // The decoder reports where it stands: for what is cut at the field, else behind it.
    void compare_places(const std::string &body) {
        const std::string &report = hostile_.report();
        ASSERT_TRUE(names_a_body_condition(report)) << report;
        const std::string path = flaw_.path;
        const bool nested = holds(report, "zdmsg_struct_deserialize");
        ASSERT_EQ(nested, holds(path, "].")) << path;
        if (nested) {
            const std::string j = std::to_string(variable(report, "j"));
            const size_t close = path.rfind("].");
            ASSERT_EQ(path.substr(path.rfind('[') + 1, close - path.rfind('[') - 1), j) << path;
        }
        const int stands_at = variable(report, nested ? "*offset" : "offset");
        if (flaw_.kind == ZDMSG_FLAW_CUT) {
            ASSERT_EQ(stands_at, flaw_.offset) << report;
            ASSERT_TRUE(holds(report, ") <= msg->body_size (") || holds(report, ") <= body_size ("))
                << report;
            ASSERT_EQ(flaw_.allowed, static_cast<int64_t>(body.size()) - flaw_.offset);
            return;
        }
        ASSERT_TRUE(holds(report, "offset <= msg->body_size (") ||
                    holds(report, "*offset <= body_size ("))
            << report;
        const int len = variable(report, "str_len");
        if (flaw_.kind == ZDMSG_FLAW_NEGATIVE_LENGTH) {
            ASSERT_EQ(len, flaw_.found);
            return;
        }
        ASSERT_EQ(flaw_.kind, ZDMSG_FLAW_LENGTH);
        const int64_t end = static_cast<int64_t>(body.size()) - flaw_.allowed + flaw_.found;
        ASSERT_EQ(stands_at, static_cast<int>(end)) << report;
        ASSERT_EQ(flaw_.found, (int64_t{len} + 4) / 4 * 4);
    }

    template <class Check>
    void for_each(Check check_sample) {
        for (const zdmsg_shapes::Shape &shape : zdmsg_shapes::messages()) {
            SCOPED_TRACE(shape.name);
            const Sample sample(shape);
            check_sample(shape.number, sample);
            if (HasFatalFailure())
                return;
        }
    }

    Hostile hostile_;
    zdmsg_flaw_t flaw_;
    int runs_ = 0;
    int refused_ = 0;
};

TEST_F(ZdmsgHostile, EveryMessageIsAcceptedWholeAndWithMoreBehindIt) {
    for_each([&](int type, const Sample &sample) {
        for (const char *more : {"", "x", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}) {
            ASSERT_NO_FATAL_FAILURE(check(type, sample.body() + more));
        }
    });
    EXPECT_EQ(refused_, 0);
    EXPECT_EQ(runs_, 278 * 3);
}

TEST_F(ZdmsgHostile, EveryMessageCutAtAnyByteIsRefused) {
    for_each([&](int type, const Sample &sample) {
        for (size_t size = 0; size < sample.body().size(); size++) {
            ASSERT_NO_FATAL_FAILURE(check(type, sample.body().substr(0, size))) << size;
        }
    });
    EXPECT_EQ(refused_, runs_);
    EXPECT_GT(runs_, 10000);
}

// The body with a length or count replaced. A column's prefix keeps its size where it can.
std::string with_length(const Sample &sample, const Length &length, uint32_t value) {
    std::string body = sample.body();
    if (length.size == 4)
        return body.replace(length.offset, 4, big_endian(value));
    if (length.size == 1)
        return body.replace(length.offset, 1, 1, static_cast<char>(value));
    return body.replace(length.offset + 1, 2, big_endian(value).substr(2));
}

TEST_F(ZdmsgHostile, EveryLengthAndCountMayBeReplaced) {
    for_each([&](int type, const Sample &sample) {
        for (const Length &length : sample.lengths()) {
            for (const uint32_t value : {
                     0xFFFFFFFFu,
                     0u,
                     1u,
                     length.value - 1,
                     length.value + 1,
                     length.value + 3,
                     length.value + 4,
                     0x7FFFFFFFu,
                     0x7FFFFFFCu,
                     0x80000000u,
                     0xFFFFFFFCu,
                     0x10000u,
                     static_cast<uint32_t>(sample.body().size()),
                     static_cast<uint32_t>(sample.body().size() - length.offset - length.size),
                 }) {
                ASSERT_NO_FATAL_FAILURE(check(type, with_length(sample, length, value)))
                    << "at " << length.offset << ": " << value;
            }
        }
    });
    EXPECT_GT(refused_, 1000);
    EXPECT_GT(runs_ - refused_, 1000);
}

TEST_F(ZdmsgHostile, EveryFirstByteOfAColumnMayBeReplaced) {
    for_each([&](int type, const Sample &sample) {
        for (const Length &length : sample.lengths()) {
            if (length.size == 4)
                continue;
            for (int first = 0; first < 256; first += first < 248 ? 31 : 1) {
                std::string body = sample.body();
                body[length.offset] = static_cast<char>(first);
                ASSERT_NO_FATAL_FAILURE(check(type, body)) << first << " at " << length.offset;
                body[length.offset + 1] = '\xFE';
                ASSERT_NO_FATAL_FAILURE(check(type, body)) << first << " at " << length.offset;
            }
        }
    });
    EXPECT_GT(runs_, 500);
}

TEST_F(ZdmsgHostile, EveryWordMayBeReplaced) {
    for_each([&](int type, const Sample &sample) {
        for (size_t at = 0; at + 4 <= sample.body().size(); at += 4) {
            for (const uint32_t word : {0xFFFFFFFFu, 0x00010000u, 0xFEFFFFFFu}) {
                ASSERT_NO_FATAL_FAILURE(
                    check(type, std::string(sample.body()).replace(at, 4, big_endian(word))))
                    << "at " << at;
            }
        }
    });
}

TEST_F(ZdmsgHostile, NoCountMakesMoreWorkThanThereAreBytes) {
    // A decoder that believed a count would be busy for two thousand million elements. The last
    // one that it began is in its report.
    int huge_counts = 0;
    for_each([&](int type, const Sample &sample) {
        for (const Length &length : sample.lengths()) {
            const std::string body = with_length(sample, length, 0x7FFFFFFF);
            if (!hostile_.refuses(type, body) || !holds(hostile_.report(), "\n\tj = "))
                continue;
            ASSERT_LE(variable(hostile_.report(), "j") * 4, static_cast<int>(body.size()));
            huge_counts++;
        }
    });
    EXPECT_GT(huge_counts, 50);
}

TEST_F(ZdmsgHostile, CountsThatMultiplyOverLevelsCostNoMoreThanTheirBytes) {
    // Each level says: a hundred thousand elements, of which the first begins here.
    std::string body(16, '\0');
    for (int level = 0; level < 500; level++)
        body += big_endian(100000) + std::string(8, '\0');
    ASSERT_NO_FATAL_FAILURE(check(ZDMSG_EXECUTE_UDT, body));
    EXPECT_EQ(refused_, 1);
}

} // namespace
