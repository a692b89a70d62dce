#include "common/listc.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "client/common/client_try.h"

namespace {

// An allocator over the process heap that counts what is out, records call sites and frees, and
// throws like any other when its allowance is used up.
class CountingAllocator {
  public:
    CountingAllocator() {
        alloc_.desc = &kDesc;
        current = this;
    }

    allocator_t *get() { return &alloc_; }

    int allowance = 1000;
    int outstanding = 0;
    std::vector<int64_t> sizes;
    std::vector<std::string> files;
    std::vector<int> lines;
    std::vector<void *> freed;

    static constexpr ec_t kOutOfMemory = -3003;

  private:
    static void *take(allocator_t *, int64_t bytes, const char *file, int line) {
        current->sizes.push_back(bytes);
        current->files.push_back(file);
        current->lines.push_back(line);
        if (current->allowance == 0)
            return nullptr;
        current->allowance--;
        current->outstanding++;
        return malloc(static_cast<size_t>(bytes));
    }

    static void give_back(allocator_t *, void *ptr, const char *file, int line) {
        current->files.push_back(file);
        current->lines.push_back(line);
        current->freed.push_back(ptr);
        current->outstanding--;
        free(ptr);
    }

    static void raise(allocator_t *) { zd_err_and_jmp("test", 1, "raise", 0, 0, kOutOfMemory); }

    static inline CountingAllocator *current = nullptr;
    static constexpr allocator_desc_t kDesc = {take,      nullptr, nullptr, nullptr,
                                               give_back, nullptr, nullptr, raise};
    allocator_t alloc_ = {};
};

int objects[4];
void *const a = &objects[0];
void *const b = &objects[1];
void *const c = &objects[2];
void *const d = &objects[3];

using Data = std::vector<void *>;

class ListC : public testing::Test {
  protected:
    ~ListC() override {
        for (listc_t *list : lists_)
            listc_free(list, alloc());
        EXPECT_EQ(allocator_.outstanding, 0);
    }

    allocator_t *alloc() { return allocator_.get(); }

    // Has the list freed at the end of the test.
    listc_t *own(listc_t *list) {
        lists_.push_back(list);
        return list;
    }

    listc_t *make(const Data &data) {
        listc_t *const list = own(listc_new(alloc()));
        for (void *element : data)
            listc_add_tail(element, list, alloc());
        return list;
    }

    static Data data_of(const listc_t *list) {
        Data data;
        list_for_each(link, &list->link) {
            EXPECT_EQ(link->next->prev, link);
            EXPECT_EQ(link->prev->next, link);
            data.push_back(reinterpret_cast<const listc_t *>(link)->data);
        }
        return data;
    }

    CountingAllocator allocator_;
    std::vector<listc_t *> lists_;
};

using ListCDeathTest = ListC;

// The regular expression of an assertion's report.
std::string failed(const std::string &condition) {
    return "^listc:[0-9]+: Assertion fail with condition '" + condition + "' \\(PID=";
}

// Ends the process through the assertion with this condition.
#define EXPECT_ASSERTION(statement, condition)                                                     \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), failed(condition))

// ---- nodes ----

TEST_F(ListC, NewListIsEmptyAndCarriesNoData) {
    listc_t *const list = make({});
    EXPECT_EQ(list->link.next, &list->link);
    EXPECT_EQ(list->link.prev, &list->link);
    EXPECT_EQ(list->data, nullptr);
}

TEST_F(ListC, AddInsertsAtTheFront) {
    listc_t *const list = make({a});
    listc_add(b, list, alloc());
    listc_add(c, list, alloc());
    EXPECT_EQ(data_of(list), (Data{c, b, a}));
}

TEST_F(ListC, AddTailInsertsAtTheEnd) {
    listc_t *const list = make({a});
    listc_add_tail(b, list, alloc());
    EXPECT_EQ(data_of(list), (Data{a, b}));
}

TEST_F(ListC, NodesAreAllocatedUnderTheUnitsName) {
    make({a});
    EXPECT_EQ(allocator_.sizes, (std::vector<int64_t>{24, 24}));
    for (size_t i = 0; i < allocator_.files.size(); i++) {
        EXPECT_EQ(allocator_.files[i], "listc");
        EXPECT_GT(allocator_.lines[i], 0);
    }
}

TEST_F(ListC, FreeElementUnlinksTheNodeAndLeavesTheData) {
    listc_t *const list = make({a, b, c});
    listc_t *const node = listc_find(b, list);
    listc_free_ele(node, alloc());
    EXPECT_EQ(data_of(list), (Data{a, c}));
    EXPECT_EQ(allocator_.freed, (Data{node}));
}

TEST_F(ListC, FreeElementWithDataFreesTheDataFirst) {
    void *const data = zd_malloc(alloc(), 8, "test", 1);
    listc_t *const list = make({a, data});
    listc_t *const node = listc_find(data, list);
    listc_free_ele_with_data(node, alloc());
    EXPECT_EQ(data_of(list), (Data{a}));
    EXPECT_EQ(allocator_.freed, (Data{data, node}));
}

TEST_F(ListC, ClearKeepsTheHeadEmpty) {
    listc_t *const list = make({a, b, a});
    listc_clear(list, alloc());
    EXPECT_EQ(data_of(list), Data());
    EXPECT_EQ(allocator_.outstanding, 1);
    listc_add_tail(c, list, alloc());
    EXPECT_EQ(data_of(list), (Data{c}));
}

TEST_F(ListC, ClearOfAnEmptyListDoesNothing) {
    listc_t *const list = make({});
    listc_clear(list, alloc());
    EXPECT_EQ(data_of(list), Data());
    EXPECT_EQ(allocator_.freed, Data());
}

TEST_F(ListC, ClearFreesFromTheFront) {
    listc_t *const list = make({a, b});
    void *const first = list->link.next;
    void *const second = list->link.prev;
    listc_clear(list, alloc());
    EXPECT_EQ(allocator_.freed, (Data{first, second}));
}

TEST_F(ListC, ClearWithDataFreesTheDataToo) {
    void *const one = zd_malloc(alloc(), 8, "test", 1);
    void *const two = zd_malloc(alloc(), 8, "test", 1);
    listc_t *const list = make({one, two});
    void *const first = list->link.next;
    void *const second = list->link.prev;
    listc_clear_with_data(list, alloc());
    EXPECT_EQ(data_of(list), Data());
    EXPECT_EQ(allocator_.freed, (Data{one, first, two, second}));
}

TEST_F(ListC, FreeEndsTheHeadAndLeavesTheData) {
    void *const data = zd_malloc(alloc(), 8, "test", 1);
    listc_t *const list = listc_new(alloc());
    listc_add(data, list, alloc());
    listc_free(list, alloc());
    EXPECT_EQ(allocator_.outstanding, 1);
    EXPECT_EQ(allocator_.freed.back(), list);
    zd_free(alloc(), data, "test", 1);
}

// ---- looking up ----

TEST_F(ListC, FindReturnsTheFirstNode) {
    listc_t *const list = make({a, b, b});
    EXPECT_EQ(&listc_find(b, list)->link, list->link.next->next);
    EXPECT_EQ(listc_find(c, list), nullptr);
}

TEST_F(ListC, FindIndexIsThatOfTheFirstOfSeveral) {
    listc_t *const list = make({a, b, d, a, b, d});
    EXPECT_EQ(listc_find_idx(d, list), 2);
    EXPECT_EQ(listc_find_idx(a, list), 0);
    EXPECT_EQ(listc_find_idx(c, list), -1);
}

TEST_F(ListC, FindNeverTakesTheHeadForAnElement) {
    listc_t *const list = make({a});
    EXPECT_EQ(listc_find(nullptr, list), nullptr);
    EXPECT_EQ(listc_find_idx(nullptr, list), -1);
}

TEST_F(ListC, NullIsAnElementLikeAnyOther) {
    listc_t *const list = make({a, nullptr});
    EXPECT_EQ(listc_find_idx(nullptr, list), 1);
}

TEST_F(ListC, EqualContentsAreNotTheSameElement) {
    int first = 5;
    int second = 5;
    listc_t *const list = make({&first});
    EXPECT_EQ(listc_find(&second, list), nullptr);
}

// ---- copies ----

TEST_F(ListC, CopyHoldsTheSameDataInTheSameOrder) {
    listc_t *const source = make({a, b, a});
    listc_t *const copy = own(listc_copy(source, alloc()));
    EXPECT_EQ(data_of(copy), (Data{a, b, a}));
    EXPECT_EQ(data_of(source), (Data{a, b, a}));
    EXPECT_NE(copy->link.next, source->link.next);
}

TEST_F(ListC, CopyToAppendsAndReturnsTheDestination) {
    listc_t *const dest = make({c});
    EXPECT_EQ(listc_copy_to(make({a, b}), dest, alloc()), dest);
    EXPECT_EQ(data_of(dest), (Data{c, a, b}));
}

TEST_F(ListC, CopyToItselfDoublesTheList) {
    listc_t *const list = make({a, b});
    listc_copy_to(list, list, alloc());
    EXPECT_EQ(data_of(list), (Data{a, b, a, b}));
}

// ---- sets ----

TEST_F(ListC, UnionKeepsDuplicatesOfEitherList) {
    listc_t *const list1 = make({a, b});
    listc_t *const list2 = make({b, c, c});
    EXPECT_EQ(data_of(own(listc_union(list1, list2, alloc()))), (Data{a, b, c, c}));
    EXPECT_EQ(data_of(own(listc_union(list2, list1, alloc()))), (Data{b, c, c, a}));
    EXPECT_EQ(data_of(list1), (Data{a, b}));
    EXPECT_EQ(data_of(list2), (Data{b, c, c}));
}

TEST_F(ListC, UnionWithAnEmptyListIsACopy) {
    EXPECT_EQ(data_of(own(listc_union(make({a, a}), make({}), alloc()))), (Data{a, a}));
    EXPECT_EQ(data_of(own(listc_union(make({}), make({a, a}), alloc()))), (Data{a, a}));
}

TEST_F(ListC, UnionToTestsAgainstTheFirstListAlone) {
    listc_t *const dest = make({c});
    EXPECT_EQ(listc_union_to(make({a}), make({a, b, c}), dest, alloc()), dest);
    EXPECT_EQ(data_of(dest), (Data{c, a, b, c}));
}

TEST_F(ListC, UnionToOneOfItsSourcesEnds) {
    listc_t *const list = make({b, c});
    listc_union_to(make({a, b}), list, list, alloc());
    EXPECT_EQ(data_of(list), (Data{b, c, a, b, c}));
}

TEST_F(ListC, IntersectionKeepsDuplicatesOfTheFirstList) {
    EXPECT_EQ(data_of(own(listc_intersection(make({a, a, b}), make({a}), alloc()))), (Data{a, a}));
    EXPECT_EQ(data_of(own(listc_intersection(make({a}), make({a, a, b}), alloc()))), (Data{a}));
}

TEST_F(ListC, IntersectionFollowsTheOrderOfTheFirstList) {
    EXPECT_EQ(data_of(own(listc_intersection(make({c, d, a}), make({a, b, c}), alloc()))),
              (Data{c, a}));
}

TEST_F(ListC, IntersectionWithAnEmptyListIsEmpty) {
    EXPECT_EQ(data_of(own(listc_intersection(make({a}), make({}), alloc()))), Data());
    EXPECT_EQ(data_of(own(listc_intersection(make({}), make({a}), alloc()))), Data());
}

TEST_F(ListC, IntersectionToAppends) {
    listc_t *const dest = make({d});
    listc_intersection_to(make({a, b}), make({b}), dest, alloc());
    EXPECT_EQ(data_of(dest), (Data{d, b}));
}

TEST_F(ListC, MinusRemovesOneOccurrenceForEach) {
    listc_t *const list1 = make({a, b, a, c});
    EXPECT_EQ(data_of(own(listc_minus(list1, make({a}), alloc()))), (Data{b, a, c}));
    EXPECT_EQ(data_of(own(listc_minus(list1, make({a, d, a}), alloc()))), (Data{b, c}));
    EXPECT_EQ(data_of(own(listc_minus(list1, make({}), alloc()))), (Data{a, b, a, c}));
    EXPECT_EQ(data_of(list1), (Data{a, b, a, c}));
}

TEST_F(ListC, MinusFromRemovesTheFirstOccurrenceInPlace) {
    listc_t *const list = make({a, b, a});
    EXPECT_EQ(listc_minus_from(list, make({a}), alloc()), list);
    EXPECT_EQ(data_of(list), (Data{b, a}));
}

TEST_F(ListC, MinusFromItselfEmptiesTheList) {
    listc_t *const list = make({a, b, a});
    listc_minus_from(list, list, alloc());
    EXPECT_EQ(data_of(list), Data());
}

TEST_F(ListC, SubsetNeedsEveryElement) {
    EXPECT_EQ(listc_is_subset(make({b, a, a}), make({a, b, c})), 1);
    EXPECT_EQ(listc_is_subset(make({a, d}), make({a, b, c})), 0);
    EXPECT_EQ(listc_is_subset(make({a}), make({})), 0);
}

TEST_F(ListC, EmptyListIsASubsetOfAnyList) {
    EXPECT_EQ(listc_is_subset(make({}), make({a})), 1);
    EXPECT_EQ(listc_is_subset(make({}), make({})), 1);
}

TEST_F(ListC, OverlapNeedsOneElement) {
    EXPECT_EQ(listc_is_overlap(make({a, b}), make({c, b})), 1);
    EXPECT_EQ(listc_is_overlap(make({a, b}), make({c, d})), 0);
}

TEST_F(ListC, EmptyListOverlapsNothing) {
    EXPECT_EQ(listc_is_overlap(make({}), make({a})), 0);
    EXPECT_EQ(listc_is_overlap(make({a}), make({})), 0);
    EXPECT_EQ(listc_is_overlap(make({}), make({})), 0);
}

TEST_F(ListC, AnswersOfTheTestsAreBytesOfOneOrZero) {
    listc_t *const list = make({a});
    const uchar subset{listc_is_subset(list, list)}; // braces refuse a wider answer
    const uchar overlap{listc_is_overlap(list, list)};
    EXPECT_EQ(subset, 1);
    EXPECT_EQ(overlap, 1);
}

TEST_F(ListC, ReplaceSetsTheDataAtThePosition) {
    listc_t *const list = make({a, a, a});
    listc_replace(b, 0, list);
    listc_replace(c, 2, list);
    EXPECT_EQ(data_of(list), (Data{b, a, c}));
}

TEST_F(ListC, ReplacePastTheEndChangesNothing) {
    listc_t *const list = make({a, b});
    listc_replace(c, 2, list);
    listc_replace(c, 3, list);
    listc_replace(c, INT32_MAX, list);
    EXPECT_EQ(data_of(list), (Data{a, b}));
    EXPECT_EQ(list->data, nullptr);
}

TEST_F(ListC, ReplaceInAnEmptyListChangesNothing) {
    listc_t *const list = make({});
    listc_replace(c, 0, list);
    listc_replace(c, -1, list);
    EXPECT_EQ(data_of(list), Data());
    EXPECT_EQ(list->data, nullptr);
}

TEST_F(ListC, ReplaceAtANegativePositionReplacesTheFirst) {
    listc_t *const list = make({a, b});
    listc_replace(c, -5, list);
    EXPECT_EQ(data_of(list), (Data{c, b}));
}

// ---- out of memory ----

TEST_F(ListC, NewThrowsWhenThereIsNoMemory) {
    allocator_.allowance = 0;
    EXPECT_EQ(client_try([&] { listc_new(alloc()); }), CountingAllocator::kOutOfMemory);
}

TEST_F(ListC, AddThrowsAndLeavesTheListAsItWas) {
    listc_t *const list = make({a, b});
    allocator_.allowance = 0;
    EXPECT_EQ(client_try([&] { listc_add(c, list, alloc()); }), CountingAllocator::kOutOfMemory);
    EXPECT_EQ(client_try([&] { listc_add_tail(c, list, alloc()); }),
              CountingAllocator::kOutOfMemory);
    EXPECT_EQ(data_of(list), (Data{a, b}));
}

TEST_F(ListC, CopyToKeepsWhatItAppendedBeforeTheThrow) {
    listc_t *const source = make({a, b, c});
    listc_t *const dest = make({d});
    allocator_.allowance = 2;
    EXPECT_EQ(client_try([&] { listc_copy_to(source, dest, alloc()); }),
              CountingAllocator::kOutOfMemory);
    EXPECT_EQ(data_of(dest), (Data{d, a, b}));
}

TEST_F(ListC, ThrowingSetOperationsFreeNothing) {
    listc_t *const list1 = make({a, b});
    listc_t *const list2 = make({b, c});
    listc_t *const dest = make({});
    for (int allowance = 0; allowance < 3; allowance++) {
        allocator_.allowance = allowance;
        EXPECT_EQ(client_try([&] { listc_union_to(list1, list2, dest, alloc()); }),
                  CountingAllocator::kOutOfMemory);
    }
    allocator_.allowance = 0;
    EXPECT_EQ(client_try([&] { listc_intersection_to(list1, list2, dest, alloc()); }),
              CountingAllocator::kOutOfMemory);
    EXPECT_EQ(client_try([&] { listc_minus(list1, list2, alloc()); }),
              CountingAllocator::kOutOfMemory);
    EXPECT_EQ(allocator_.freed, Data());
    EXPECT_EQ(data_of(list1), (Data{a, b}));
    EXPECT_EQ(data_of(dest), (Data{a, a, b}));
}

// ---- programming faults ----

TEST_F(ListCDeathTest, NullListsFailTheAssertionOfTheirOperation) {
    listc_t *const list = make({a});
    EXPECT_ASSERTION(listc_add(a, nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_add_tail(a, nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_free_ele(nullptr, alloc()), "pos != NULL");
    EXPECT_ASSERTION(listc_free_ele_with_data(nullptr, alloc()), "pos != NULL");
    EXPECT_ASSERTION(listc_clear(nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_clear_with_data(nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_free(nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_find(a, nullptr), "head != NULL");
    EXPECT_ASSERTION(listc_find_idx(a, nullptr), "head != NULL");
    EXPECT_ASSERTION(listc_copy(nullptr, alloc()), "src != NULL");
    EXPECT_ASSERTION(listc_copy_to(nullptr, list, alloc()), "src != NULL");
    EXPECT_ASSERTION(listc_union(nullptr, list, alloc()), "list1 != NULL");
    EXPECT_ASSERTION(listc_union(list, nullptr, alloc()), "list2 != NULL");
    EXPECT_ASSERTION(listc_union_to(nullptr, list, list, alloc()), "list1 != NULL");
    EXPECT_ASSERTION(listc_union_to(list, nullptr, list, alloc()), "list2 != NULL");
    EXPECT_ASSERTION(listc_union_to(list, list, nullptr, alloc()), "dest != NULL");
    EXPECT_ASSERTION(listc_is_subset(nullptr, list), "sub != NULL");
    EXPECT_ASSERTION(listc_is_subset(list, nullptr), "head != NULL");
    EXPECT_ASSERTION(listc_is_subset(make({}), nullptr), "head != NULL"); // searched or not
    EXPECT_ASSERTION(listc_replace(a, 0, nullptr), "list != NULL");
}

TEST_F(ListCDeathTest, FreeElementWithoutDataFailsBeforeAnythingIsFreed) {
    listc_t *const list = make({nullptr});
    listc_t *const node = listc_find(nullptr, list);
    // What the dying process freed would show behind the report.
    EXPECT_EXIT(
        {
            static const CountingAllocator *const seen = &allocator_;
            signal(SIGABRT, [](int) { _exit(static_cast<int>(seen->freed.size())); });
            listc_free_ele_with_data(node, alloc());
        },
        testing::ExitedWithCode(0), failed("pos->data != NULL"));
}

TEST_F(ListCDeathTest, ClearWithDataInsistsOnData) {
    listc_t *const list = make({nullptr});
    EXPECT_ASSERTION(listc_clear_with_data(list, alloc()), "pos->data != NULL");
}

TEST_F(ListCDeathTest, IntersectionDoesNotCheckItsDestinationUntilItAppends) {
    listc_intersection_to(make({a}), make({b}), nullptr, alloc());
    EXPECT_ASSERTION(listc_intersection_to(make({a}), make({a}), nullptr, alloc()), "head != NULL");
}

TEST_F(ListCDeathTest, OperationsWithoutAnAssertionReportThroughTheirSearch) {
    listc_t *const list = make({a});
    EXPECT_ASSERTION(listc_intersection(list, nullptr, alloc()), "head != NULL");
    EXPECT_ASSERTION(listc_is_overlap(list, nullptr), "head != NULL");
    EXPECT_ASSERTION(listc_minus(nullptr, list, alloc()), "src != NULL");
    EXPECT_ASSERTION(listc_minus_from(nullptr, list, alloc()), "head != NULL");
}

} // namespace
