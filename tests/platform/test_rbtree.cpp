// Red-black tree: every change is followed by a full check of the tree's
// rules, its order through both iterators and the subtree sizes the augment
// hooks keep.
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

uint32_t SizeOf(const rb_node *node) {
    return node == nullptr ? 0 : ItemOf(node)->size;
}

void UpdateSize(rb_node *node, void *) {
    ItemOf(node)->size = 1 + SizeOf(node->rb_left) + SizeOf(node->rb_right);
}

// Descends by key the way the logging tables do.
void Insert(rb_root *root, Item *item) {
    rb_node **link = &root->rb_node;
    rb_node *parent = nullptr;
    while (*link != nullptr) {
        parent = *link;
        link = item->key < ItemOf(parent)->key ? &parent->rb_left : &parent->rb_right;
    }
    rb_link_node(&item->node, parent, link);
    rb_insert_color(&item->node, root);
    rb_augment_insert(&item->node, UpdateSize, nullptr);
}

void Erase(rb_root *root, Item *item) {
    rb_node *deepest = rb_augment_erase_begin(&item->node);
    rb_erase(&item->node, root);
    rb_augment_erase_end(deepest, UpdateSize, nullptr);
}

// Returns the black height of the subtree and appends its keys in order;
// records the first broken rule in `error`.
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
    } else if (rb_is_red(node) && (parent == nullptr || rb_is_red(parent))) {
        error = "red root or red node under red parent" + at;
    }
    int left = Walk(node->rb_left, node, keys, error);
    keys.push_back(ItemOf(node)->key);
    int right = Walk(node->rb_right, node, keys, error);
    if (error.empty() && left != right) {
        error = "black heights differ" + at;
    } else if (error.empty() &&
               ItemOf(node)->size != 1 + SizeOf(node->rb_left) + SizeOf(node->rb_right)) {
        error = "augmented size stale" + at;
    }
    return left + rb_color(node);
}

// Empty when the tree obeys every rule and holds exactly `expected`, in
// order, through the recursive walk and through both iterators.
std::string Validate(const rb_root &root, const std::set<uint32_t> &expected) {
    std::vector<uint32_t> keys;
    std::string error;
    Walk(root.rb_node, nullptr, keys, error);
    const std::vector<uint32_t> want(expected.begin(), expected.end());
    std::vector<uint32_t> forward, backward;
    for (rb_node *n = rb_first(&root); n != nullptr; n = rb_next(n)) {
        forward.push_back(ItemOf(n)->key);
    }
    for (rb_node *n = rb_last(&root); n != nullptr; n = rb_prev(n)) {
        backward.insert(backward.begin(), ItemOf(n)->key);
    }
    if (error.empty() && (keys != want || forward != want || backward != want)) {
        error = "key order differs";
    }
    return error;
}

// Every node is also replaced by a twin before the erasures begin.
TEST(RbTree, InsertReplaceEraseInOrder) {
    std::vector<uint32_t> ascending(1000);
    std::iota(ascending.begin(), ascending.end(), 1u);
    std::vector<uint32_t> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    std::vector<uint32_t> zigzag;
    for (uint32_t i = 1; i <= 500; ++i) {
        zigzag.insert(zigzag.end(), {i, 1001 - i});
    }
    const struct {
        const char *name;
        std::vector<uint32_t> keys;  // inserted, then erased, in this order
    } rows[] = {
        {"ascending", ascending},
        {"descending", {ascending.rbegin(), ascending.rend()}},
        {"shuffled", shuffled},
        {"zigzag", zigzag},
        {"root of three nodes erased first", {2, 1, 3}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<Item> items(row.keys.size()), twins(row.keys.size());
        rb_root root = RB_ROOT;
        std::set<uint32_t> present;
        for (size_t i = 0; i < items.size(); ++i) {
            items[i].key = row.keys[i];
            Insert(&root, &items[i]);
            present.insert(row.keys[i]);
            ASSERT_EQ(Validate(root, present), "") << "after inserting " << row.keys[i];
        }
        for (size_t i = 0; i < items.size(); ++i) {
            twins[i].key = items[i].key;
            twins[i].size = items[i].size;
            rb_replace_node(&items[i].node, &twins[i].node, &root);
            ASSERT_EQ(Validate(root, present), "") << "after replacing " << row.keys[i];
        }
        for (size_t i = 0; i < items.size(); ++i) {
            Erase(&root, &twins[i]);
            present.erase(row.keys[i]);
            ASSERT_EQ(Validate(root, present), "") << "after erasing " << row.keys[i];
        }
        EXPECT_EQ(root.rb_node, nullptr);
    }
}

}  // namespace
