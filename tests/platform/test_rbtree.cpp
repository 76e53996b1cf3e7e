// Red-black tree against std::set: every random step is followed by a check
// of the red-black invariants, the order both ways and the augmented sizes.
#include "platform/rbtree.h"

#include <gtest/gtest.h>

#include <cstdint>
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

// Returns the black height of the subtree and appends its keys in order;
// records the first broken rule in `error`.
int Walk(const rb_node *node, const rb_node *parent, std::vector<uint32_t> &keys,
         std::string &error) {
    if (node == nullptr || !error.empty()) {
        return 1;
    }
    const std::string at = " at key " + std::to_string(ItemOf(node)->key);
    if (rb_parent(node) != parent || (node->rb_parent_color & 2) != 0) {
        error = "parent word wrong" + at;
    } else if (rb_is_red(node) && (parent == nullptr || rb_is_red(parent))) {
        error = "red root or red node under red parent" + at;
    }
    const int left = Walk(node->rb_left, node, keys, error);
    keys.push_back(ItemOf(node)->key);
    const int right = Walk(node->rb_right, node, keys, error);
    if (error.empty() && left != right) {
        error = "black heights differ" + at;
    } else if (error.empty() &&
               ItemOf(node)->size != 1 + SizeOf(node->rb_left) + SizeOf(node->rb_right)) {
        error = "augmented size stale" + at;
    }
    return left + rb_color(node);
}

// Empty when the tree obeys every rule and holds exactly `model`, in order,
// through the recursive walk and through both iterators.
std::string Validate(const rb_root &root, const std::set<uint32_t> &model) {
    std::vector<uint32_t> keys, forward, backward;
    std::string error;
    Walk(root.rb_node, nullptr, keys, error);
    for (rb_node *n = rb_first(&root); n != nullptr; n = rb_next(n)) {
        forward.push_back(ItemOf(n)->key);
    }
    for (rb_node *n = rb_last(&root); n != nullptr; n = rb_prev(n)) {
        backward.insert(backward.begin(), ItemOf(n)->key);
    }
    const std::vector<uint32_t> want(model.begin(), model.end());
    if (error.empty() && (keys != want || forward != want || backward != want)) {
        error = "key order differs";
    }
    return error;
}

// Phases fill and drain the tree; a replacement moves key k to its other slot.
TEST(RbTree, RandomAgainstSet) {
    constexpr uint32_t kKeys = 300;
    std::vector<Item> slots(2 * kKeys);
    std::vector<uint32_t> at(kKeys, 0);
    rb_root root = RB_ROOT;
    std::set<uint32_t> model;
    std::mt19937 rng(7);
    for (int step = 0; step < 30000; ++step) {
        const bool filling = step / 3000 % 2 == 0;
        const uint32_t key = rng() % kKeys;
        Item *item = &slots[2 * key + at[key]];
        if (!model.contains(key) && rng() % 10 < (filling ? 8u : 2u)) {
            item->key = key;
            rb_node **link = &root.rb_node;
            rb_node *parent = nullptr;
            while (*link != nullptr) {
                parent = *link;
                link = key < ItemOf(parent)->key ? &parent->rb_left : &parent->rb_right;
            }
            rb_link_node(&item->node, parent, link);
            rb_insert_color(&item->node, &root);
            rb_augment_insert(&item->node, UpdateSize, nullptr);
            model.insert(key);
        } else if (model.contains(key) && rng() % 8 == 0) {
            at[key] ^= 1;
            Item *twin = &slots[2 * key + at[key]];
            *twin = {{}, key, item->size};
            rb_replace_node(&item->node, &twin->node, &root);
        } else if (model.contains(key) && rng() % 10 < (filling ? 2u : 8u)) {
            rb_node *deepest = rb_augment_erase_begin(&item->node);
            rb_erase(&item->node, &root);
            rb_augment_erase_end(deepest, UpdateSize, nullptr);
            model.erase(key);
        }
        ASSERT_EQ(Validate(root, model), "") << "step " << step << ", key " << key;
    }
}

}  // namespace
