// The trampoline alone: what a called function finds in its registers and on its stack, what comes
// back, and that the stack can be walked through it in every way.

#include "client/zdepa/dlc_x64_system_v.h"

#include <dlfcn.h>
#include <setjmp.h>

#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using IntRegs = std::array<int64_t, 6>;
using FloatRegs = std::array<double, 8>;

constexpr IntRegs kInts = {1, 20, 300, 4000, 50000, 600000};
constexpr FloatRegs kDoubles = {0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5};

template <class Function>
inline __attribute__((always_inline)) int64_t call(Function *fn,
                                                   const std::vector<int64_t> &stack = {}) {
    return dl_call_linux_x64(stack.size() * 8, reinterpret_cast<const char *>(stack.data()),
                             kInts.data(), kDoubles.data(), reinterpret_cast<void *>(fn));
}

int64_t weigh_ints(int64_t a, int64_t b, int64_t c, int64_t d, int64_t e, int64_t f) {
    return a + 2 * b + 3 * c + 5 * d + 7 * e + 11 * f;
}

TEST(Trampoline, SixIntegersArriveInTheirRegisters) {
    EXPECT_EQ(call(weigh_ints), weigh_ints(1, 20, 300, 4000, 50000, 600000));
}

double weigh_doubles(double a, double b, double c, double d, double e, double f, double g,
                     double h) {
    return a + 2 * b + 3 * c + 5 * d + 7 * e + 11 * f + 13 * g + 17 * h;
}

TEST(Trampoline, EightDoublesArriveInTheirRegistersAndADoubleComesBack) {
    const auto call_double = dlc_view<ext_func_dbl_t>();
    EXPECT_EQ(call_double(0, nullptr, kInts.data(), kDoubles.data(),
                          reinterpret_cast<void *>(weigh_doubles)),
              weigh_doubles(0.5, 1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5));
}

float half_of(float value) {
    return value / 2;
}

TEST(Trampoline, FloatInTheLowHalfOfASlotArrivesAndComesBackAsAFloat) {
    FloatRegs slots = {};
    const float value = 12.5f;
    memcpy(slots.data(), &value, sizeof value);
    const auto call_float = dlc_view<ext_func_flo_t>();
    EXPECT_EQ(call_float(0, nullptr, kInts.data(), slots.data(), reinterpret_cast<void *>(half_of)),
              6.25f);
}

int64_t seventh_and_eighth(int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, int64_t g,
                           int64_t h) {
    return g * 1000 + h;
}

TEST(Trampoline, FirstStackSlotIsTheSeventhInteger) {
    EXPECT_EQ(call(seventh_and_eighth, {77, 88}), 77088);
}

double ninth(double, double, double, double, double, double, double, double, double i) {
    return i;
}

TEST(Trampoline, NinthDoubleComesFromTheStack) {
    const double value = 99.25;
    const auto call_double = dlc_view<ext_func_dbl_t>();
    EXPECT_EQ(call_double(8, reinterpret_cast<const char *>(&value), kInts.data(), kDoubles.data(),
                          reinterpret_cast<void *>(ninth)),
              99.25);
}

// At the first instruction of a function the convention wants rsp + 8 to be a multiple of 16.
extern "C" int64_t stack_pointer_on_entry(void);
asm(".text\n.globl stack_pointer_on_entry\n.type stack_pointer_on_entry, @function\n"
    "stack_pointer_on_entry:\n endbr64\n movq %rsp, %rax\n ret\n"
    ".size stack_pointer_on_entry, . - stack_pointer_on_entry\n");

TEST(Trampoline, StackIsAlignedForEveryNumberOfSlots) {
    for (size_t slots = 0; slots <= 40; slots++) {
        const int64_t rsp = call(stack_pointer_on_entry, std::vector<int64_t>(slots));
        EXPECT_EQ((rsp + 8) % 16, 0) << slots << " slots";
    }
}

extern "C" int64_t al_on_entry(void);
asm(".text\n.globl al_on_entry\n.type al_on_entry, @function\n"
    "al_on_entry:\n endbr64\n movzbl %al, %eax\n ret\n"
    ".size al_on_entry, . - al_on_entry\n");

TEST(Trampoline, TellsAVariadicFunctionOfEightVectorRegisters) {
    EXPECT_EQ(call(al_on_entry), 8);
}

int sum_of_stack(int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, char a, char b) {
    return a * 100 + b;
}

TEST(Trampoline, BlockOfOddSizeIsCopiedToTheLastByte) {
    char block[12] = {};
    block[0] = 3;
    block[8] = 7;
    EXPECT_EQ(dl_call_linux_x64(sizeof block, block, kInts.data(), kDoubles.data(),
                                reinterpret_cast<void *>(sum_of_stack)),
              307);
}

// Calls the trampoline with known values in the two registers that it uses and fn must not see.
extern "C" int64_t registers_kept(size_t, const char *, const int64_t *, const double *, void *);
asm(".text\n.globl registers_kept\n.type registers_kept, @function\n"
    "registers_kept:\n endbr64\n pushq %rbx\n pushq %rbp\n subq $8, %rsp\n"
    " movabsq $0x1122334455667788, %rbx\n movabsq $0x99aabbccddeeff00, %rbp\n"
    " call dl_call_linux_x64@PLT\n"
    " movabsq $0x1122334455667788, %rax\n cmpq %rax, %rbx\n sete %cl\n"
    " movabsq $0x99aabbccddeeff00, %rax\n cmpq %rax, %rbp\n sete %al\n"
    " andb %cl, %al\n movzbl %al, %eax\n addq $8, %rsp\n popq %rbp\n popq %rbx\n ret\n"
    ".size registers_kept, . - registers_kept\n");

TEST(Trampoline, CalleeSavedRegistersSurvive) {
    const int64_t block[3] = {};
    EXPECT_EQ(registers_kept(sizeof block, reinterpret_cast<const char *>(block), kInts.data(),
                             kDoubles.data(), reinterpret_cast<void *>(weigh_ints)),
              1);
}

// --- walking, jumping, throwing ----------------------------------------------------------------

std::vector<std::string> *names_seen;

void record_name(void *address) {
    Dl_info info;
    if (dladdr(address, &info) != 0 && info.dli_sname != nullptr)
        names_seen->push_back(info.dli_sname);
}

bool saw(const char *name) {
    for (const std::string &seen : *names_seen)
        if (seen == name)
            return true;
    return false;
}

int64_t walk_frame_pointers(void) {
    struct frame {
        frame *next;
        void *return_address;
    };
    const frame *at = static_cast<const frame *>(__builtin_frame_address(0));
    for (int depth = 0; depth < 64 && at != nullptr; depth++) {
        record_name(at->return_address);
        if (at->next <= at)
            break;
        at = at->next;
    }
    return 0;
}

int64_t walk_unwind_information(void) {
    unw_context_t context;
    unw_cursor_t cursor;
    unw_getcontext(&context);
    unw_init_local(&cursor, &context);
    while (unw_step(&cursor) > 0) {
        unw_word_t ip;
        unw_get_reg(&cursor, UNW_REG_IP, &ip);
        record_name(reinterpret_cast<void *>(ip));
    }
    return 0;
}

// A caller with a name that a walk can report.
extern "C" __attribute__((noinline)) int64_t caller_of_trampoline(int64_t (*walk)(void)) {
    const int64_t result = call(walk, std::vector<int64_t>(5));
    asm volatile("" ::: "memory");
    return result;
}

class TrampolineWalk : public testing::TestWithParam<int64_t (*)(void)> {
  protected:
    void SetUp() override { names_seen = &names_; }
    std::vector<std::string> names_;
};

// With stack slots, the distance from the stack pointer to the saved registers is known only at
// run time: the walk has to find it from the frame pointer.
TEST_P(TrampolineWalk, PassesThroughTheTrampoline) {
    caller_of_trampoline(GetParam());
    EXPECT_TRUE(saw("dl_call_linux_x64"));
    EXPECT_TRUE(saw("caller_of_trampoline"));
}

INSTANTIATE_TEST_SUITE_P(BothWays, TrampolineWalk,
                         testing::Values(walk_frame_pointers, walk_unwind_information));

TEST(TrampolineUnwind, ReachesMain) {
    std::vector<std::string> names;
    names_seen = &names;
    call(walk_unwind_information, std::vector<int64_t>(3));
    EXPECT_TRUE(saw("main"));
}

jmp_buf landing;

int64_t jump_out(void) {
    longjmp(landing, 42);
}

TEST(TrampolineUnwind, LongjmpLeavesItsFrameBehind) {
    volatile int rounds = 0;
    const std::vector<int64_t> stack(3); // outside the jump, which runs no destructors
    if (setjmp(landing) == 0 || rounds < 3) {
        rounds = rounds + 1;
        call(jump_out, stack);
        FAIL() << "came back";
    }
    EXPECT_EQ(rounds, 3);
    EXPECT_EQ(call(weigh_ints), weigh_ints(1, 20, 300, 4000, 50000, 600000));
}

int64_t throw_out(void) {
    throw std::runtime_error("out of the routine");
}

TEST(TrampolineUnwind, ExceptionPassesThroughToTheCaller) {
    EXPECT_THROW(call(throw_out, std::vector<int64_t>(3)), std::runtime_error);
    EXPECT_THROW(call(throw_out), std::runtime_error);
}

} // namespace
