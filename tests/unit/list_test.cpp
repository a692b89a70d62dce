#include "common/list.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Record {
    int number;
    list_link_t link;
};

class List : public testing::Test {
  protected:
    void SetUp() override { list_init(&head_); }

    // The numbers on the list, and the check that walking backwards meets the same links.
    std::vector<int> numbers() {
        std::vector<int> forward;
        list_for_each(position, &head_) {
            EXPECT_EQ(position->next->prev, position);
            EXPECT_EQ(position->prev->next, position);
            forward.push_back(list_entry(position, Record, link)->number);
        }
        return forward;
    }

    list_t head_;
    Record one_ = {1, {}};
    Record two_ = {2, {}};
    Record three_ = {3, {}};
};

TEST_F(List, EmptyHeadPointsAtItself) {
    EXPECT_EQ(head_.next, &head_);
    EXPECT_EQ(head_.prev, &head_);
    EXPECT_TRUE(list_is_empty(&head_));
    EXPECT_EQ(numbers(), std::vector<int>());
}

TEST_F(List, WalkVisitsElementsInOrder) {
    list_add_tail(&head_, &one_.link);
    list_add_tail(&head_, &two_.link);
    list_add_tail(&head_, &three_.link);
    EXPECT_FALSE(list_is_empty(&head_));
    EXPECT_EQ(numbers(), (std::vector<int>{1, 2, 3}));
}

TEST_F(List, AddingAtTheHeadReversesTheOrder) {
    list_add_head(&head_, &one_.link);
    list_add_head(&head_, &two_.link);
    EXPECT_EQ(numbers(), (std::vector<int>{2, 1}));
}

TEST_F(List, InsertsAfterAndBeforeALink) {
    list_add_tail(&head_, &two_.link);
    list_insert_after(&two_.link, &three_.link);
    list_insert_before(&two_.link, &one_.link);
    EXPECT_EQ(numbers(), (std::vector<int>{1, 2, 3}));
}

TEST_F(List, UnlinkingKeepsTheOthersInOrder) {
    list_add_tail(&head_, &one_.link);
    list_add_tail(&head_, &two_.link);
    list_add_tail(&head_, &three_.link);
    list_unlink(&two_.link);
    EXPECT_EQ(numbers(), (std::vector<int>{1, 3}));
}

TEST_F(List, UnlinkingTheLastElementLeavesTheEmptyHead) {
    list_add_tail(&head_, &one_.link);
    list_unlink(&one_.link);
    EXPECT_TRUE(list_is_empty(&head_));
    EXPECT_EQ(head_.prev, &head_);
}

TEST_F(List, AnUnlinkedElementCanBeLinkedAgain) {
    list_add_tail(&head_, &one_.link);
    list_add_tail(&head_, &two_.link);
    list_unlink(&one_.link);
    list_add_tail(&head_, &one_.link);
    EXPECT_EQ(numbers(), (std::vector<int>{2, 1}));
}

} // namespace
