#include "platform/rbtree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

struct Item {
    rb_node node;
    uint32_t key;
    uint32_t size;  // nodes in the subtree rooted here, kept by the augment hooks
};

Item *ItemOf(const rb_node *node) {
    return const_cast<Item *>(rb_entry(node, Item, node));
}

// Descends by key the way the logging tables do; false for a duplicate.
bool Insert(rb_root *root, Item *item) {
    rb_node **link = &root->rb_node;
    rb_node *parent = nullptr;
    while (*link != nullptr) {
        parent = *link;
        uint32_t key = ItemOf(parent)->key;
        if (item->key == key) {
            return false;
        }
        link = item->key < key ? &parent->rb_left : &parent->rb_right;
    }
    rb_link_node(&item->node, parent, link);
    rb_insert_color(&item->node, root);
    return true;
}

// Returns the black height of the subtree; records the first broken rule.
int Walk(const rb_node *node, const rb_node *parent, std::vector<uint32_t> &keys,
         std::string &error) {
    if (node == nullptr || !error.empty()) {
        return 1;
    }
    const std::string at = " at key " + std::to_string(ItemOf(node)->key);
    if (rb_parent(node) != parent) {
        error = "parent link wrong" + at;
    } else if ((node->rb_parent_color & 2) != 0) {
        error = "bit 1 set" + at;
    } else if (rb_is_red(node) && parent != nullptr && rb_is_red(parent)) {
        error = "red node under red parent" + at;
    }
    int left = Walk(node->rb_left, node, keys, error);
    keys.push_back(ItemOf(node)->key);
    int right = Walk(node->rb_right, node, keys, error);
    if (left != right && error.empty()) {
        error = "black heights differ" + at;
    }
    return left + rb_color(node);
}

// Empty when the tree obeys every rule and holds exactly `expected`, in
// order, through the recursive walk and through both iterators.
std::string Validate(const rb_root &root, const std::set<uint32_t> &expected) {
    if (root.rb_node != nullptr && !rb_is_black(root.rb_node)) {
        return "red root";
    }
    std::vector<uint32_t> keys;
    std::string error;
    Walk(root.rb_node, nullptr, keys, error);
    if (!error.empty()) {
        return error;
    }
    const std::vector<uint32_t> want(expected.begin(), expected.end());
    if (keys != want) {
        return "in-order keys differ";
    }
    std::vector<uint32_t> forward;
    for (rb_node *n = rb_first(&root); n != nullptr; n = rb_next(n)) {
        forward.push_back(ItemOf(n)->key);
    }
    std::vector<uint32_t> backward;
    for (rb_node *n = rb_last(&root); n != nullptr; n = rb_prev(n)) {
        backward.push_back(ItemOf(n)->key);
    }
    std::reverse(backward.begin(), backward.end());
    if (forward != want || backward != want) {
        return "iterator order differs";
    }
    return "";
}

TEST(RbTree, InsertThenEraseInManyOrders) {
    std::vector<uint32_t> ascending(1000);
    std::iota(ascending.begin(), ascending.end(), 1u);
    const std::vector<uint32_t> descending(ascending.rbegin(), ascending.rend());
    std::vector<uint32_t> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    std::vector<uint32_t> zigzag;
    for (uint32_t i = 1; i <= 500; ++i) {
        zigzag.insert(zigzag.end(), {i, 1001 - i});
    }
    const struct {
        const char *name;
        std::vector<uint32_t> keys;
    } rows[] = {
        {"ascending", ascending},
        {"descending", descending},
        {"shuffled", shuffled},
        {"zigzag", zigzag},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<Item> items(row.keys.size());
        rb_root root = RB_ROOT;
        std::set<uint32_t> present;
        for (size_t i = 0; i < items.size(); ++i) {
            items[i].key = row.keys[i];
            ASSERT_TRUE(Insert(&root, &items[i]));
            present.insert(row.keys[i]);
            ASSERT_EQ(Validate(root, present), "") << "after inserting " << row.keys[i];
        }
        for (size_t i = 0; i < items.size(); ++i) {
            rb_erase(&items[i].node, &root);
            present.erase(row.keys[i]);
            ASSERT_EQ(Validate(root, present), "") << "after erasing " << row.keys[i];
        }
        EXPECT_EQ(root.rb_node, nullptr);
    }
}

TEST(RbTree, RandomInsertsAndErases) {
    std::vector<Item> items(300);
    rb_root root = RB_ROOT;
    std::set<uint32_t> present;
    std::mt19937 rng(20240601);
    for (int op = 0; op < 6000; ++op) {
        uint32_t key = rng() % items.size();
        if (present.count(key) != 0) {
            rb_erase(&items[key].node, &root);
            present.erase(key);
        } else {
            items[key].key = key;
            ASSERT_TRUE(Insert(&root, &items[key]));
            present.insert(key);
        }
        ASSERT_EQ(Validate(root, present), "") << "operation " << op << " key " << key;
    }
}

TEST(RbTree, EraseFromThreeNodeTree) {
    for (uint32_t victim = 1; victim <= 3; ++victim) {
        SCOPED_TRACE(victim);
        Item items[3] = {{{}, 1, 0}, {{}, 2, 0}, {{}, 3, 0}};
        rb_root root = RB_ROOT;
        for (int i : {1, 0, 2}) {
            ASSERT_TRUE(Insert(&root, &items[i]));
        }
        ASSERT_EQ(root.rb_node, &items[1].node);
        rb_erase(&items[victim - 1].node, &root);
        std::set<uint32_t> rest = {1, 2, 3};
        rest.erase(victim);
        EXPECT_EQ(Validate(root, rest), "");
    }
}

TEST(RbTree, WalksAtTheEnds) {
    rb_root root = RB_ROOT;
    EXPECT_EQ(rb_first(&root), nullptr);
    EXPECT_EQ(rb_last(&root), nullptr);
    EXPECT_EQ(rb_next(nullptr), nullptr);

    Item items[5] = {{{}, 3, 0}, {{}, 1, 0}, {{}, 5, 0}, {{}, 2, 0}, {{}, 4, 0}};
    for (Item &item : items) {
        ASSERT_TRUE(Insert(&root, &item));
    }
    EXPECT_EQ(rb_first(&root), &items[1].node);
    EXPECT_EQ(rb_last(&root), &items[2].node);
    EXPECT_EQ(rb_prev(&items[1].node), nullptr);
    EXPECT_EQ(rb_next(&items[2].node), nullptr);

    Item loose{{}, 9, 0};
    rb_clear_node(&loose.node);
    EXPECT_TRUE(rb_empty_node(&loose.node));
    EXPECT_EQ(rb_next(&loose.node), nullptr);
    EXPECT_EQ(rb_prev(&loose.node), nullptr);
}

TEST(RbTree, ReplaceNodeTakesOverPlaceAndColour) {
    for (uint32_t victimKey : {4u, 1u, 7u, 10u}) {  // root, leaf, inner, rightmost
        SCOPED_TRACE(victimKey);
        std::vector<Item> items(10);
        rb_root root = RB_ROOT;
        std::set<uint32_t> keys;
        for (uint32_t i = 0; i < items.size(); ++i) {
            items[i].key = i + 1;
            ASSERT_TRUE(Insert(&root, &items[i]));
            keys.insert(i + 1);
        }
        Item &victim = items[victimKey - 1];
        const rb_node before = victim.node;
        Item fresh{{}, victimKey, 0};
        rb_replace_node(&victim.node, &fresh.node, &root);
        EXPECT_EQ(fresh.node.rb_parent_color, before.rb_parent_color);
        EXPECT_EQ(Validate(root, keys), "");
        for (rb_node *n = rb_first(&root); n != nullptr; n = rb_next(n)) {
            EXPECT_NE(n, &victim.node);
        }
    }
}

TEST(RbTree, SetParentAndColourKeepOtherBits) {
    alignas(8) rb_node a{}, b{}, c{};
    rb_set_color(&a, RB_BLACK);
    rb_set_parent(&a, &b);
    EXPECT_EQ(rb_parent(&a), &b);
    EXPECT_TRUE(rb_is_black(&a));
    rb_set_color(&a, RB_RED);
    EXPECT_EQ(rb_parent(&a), &b);
    EXPECT_TRUE(rb_is_red(&a));
    rb_set_parent(&a, &c);
    EXPECT_TRUE(rb_is_red(&a));
    EXPECT_EQ(rb_parent(&a), &c);
}

uint32_t SizeOf(const rb_node *node) {
    return node == nullptr ? 0 : ItemOf(node)->size;
}

void UpdateSize(rb_node *node, void *calls) {
    ItemOf(node)->size = 1 + SizeOf(node->rb_left) + SizeOf(node->rb_right);
    ++*static_cast<int *>(calls);
}

// Counts the subtree from scratch and compares every stored size on the way.
uint32_t Recount(const rb_node *node, int &wrong) {
    if (node == nullptr) {
        return 0;
    }
    uint32_t n = 1 + Recount(node->rb_left, wrong) + Recount(node->rb_right, wrong);
    wrong += n != ItemOf(node)->size;
    return n;
}

TEST(RbTree, AugmentHooksKeepSubtreeSizes) {
    std::vector<Item> items(400);
    rb_root root = RB_ROOT;
    std::set<uint32_t> present;
    std::mt19937 rng(99);
    int calls = 0;
    for (int op = 0; op < 8000; ++op) {
        uint32_t key = rng() % items.size();
        if (present.count(key) != 0) {
            rb_node *deepest = rb_augment_erase_begin(&items[key].node);
            rb_erase(&items[key].node, &root);
            rb_augment_erase_end(deepest, UpdateSize, &calls);
            present.erase(key);
        } else {
            items[key].key = key;
            ASSERT_TRUE(Insert(&root, &items[key]));
            rb_augment_insert(&items[key].node, UpdateSize, &calls);
            present.insert(key);
        }
        int wrong = 0;
        ASSERT_EQ(Recount(root.rb_node, wrong), present.size());
        ASSERT_EQ(wrong, 0) << "operation " << op << " key " << key;
    }
    EXPECT_GT(calls, 8000);
}

}  // namespace
