// Intrusive red-black tree.
//
// The caller embeds a struct rb_node in its own record, descends from the
// root with its own comparison to find the child slot for a new node, then
// calls rb_link_node and rb_insert_color. The tree never allocates and takes
// no locks; callers that share a tree between threads guard it themselves.
#ifndef PLATFORM_RBTREE_H
#define PLATFORM_RBTREE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <type_traits>
extern "C" {
#endif

#define RB_RED 0
#define RB_BLACK 1

// Three machine words in a fixed order (note: right before left); code built
// against this layout depends on it. Node addresses are at least 4-aligned,
// so bit 0 of the parent word carries the colour and bit 1 stays clear.
struct rb_node {
    uintptr_t rb_parent_color;
    struct rb_node *rb_right;
    struct rb_node *rb_left;
} __attribute__((aligned(sizeof(void *))));

// One word: the root node, or null for an empty tree.
struct rb_root {
    struct rb_node *rb_node;
};

#define RB_ROOT \
    { NULL }

// Recomputes the caller's summary of `node` from its children.
typedef void (*rb_augment_f)(struct rb_node *node, void *data);

static inline struct rb_node *rb_parent(const struct rb_node *node) {
    return (struct rb_node *)(node->rb_parent_color & ~(uintptr_t)3);
}
static inline int rb_color(const struct rb_node *node) {
    return (int)(node->rb_parent_color & 1);
}
static inline int rb_is_red(const struct rb_node *node) {
    return rb_color(node) == RB_RED;
}
static inline int rb_is_black(const struct rb_node *node) {
    return rb_color(node) == RB_BLACK;
}
static inline int rb_empty_root(const struct rb_root *root) {
    return root->rb_node == NULL;
}
// A node whose parent word is its own address belongs to no tree.
static inline int rb_empty_node(const struct rb_node *node) {
    return node->rb_parent_color == (uintptr_t)node;
}
static inline void rb_clear_node(struct rb_node *node) {
    node->rb_parent_color = (uintptr_t)node;
}

// rb_link_node: makes `node` a red leaf under `parent` (null for the root) and
// stores it into `*link`, the slot found by the caller's descent.
void rb_link_node(struct rb_node *node, struct rb_node *parent, struct rb_node **link);
// rb_insert_color: restores the red-black rules after rb_link_node.
void rb_insert_color(struct rb_node *node, struct rb_root *root);
// rb_erase: unlinks `node` and rebalances; the node's own words are left stale.
void rb_erase(struct rb_node *node, struct rb_root *root);

// In-order walks; null for an empty tree, at either end, or for an empty node.
struct rb_node *rb_first(const struct rb_root *root);
struct rb_node *rb_last(const struct rb_root *root);
struct rb_node *rb_next(const struct rb_node *node);
struct rb_node *rb_prev(const struct rb_node *node);

// rb_replace_node: puts `newnode` where `victim` is, taking its colour and
// children, without rebalancing; the caller guarantees the same key order.
void rb_replace_node(struct rb_node *victim, struct rb_node *newnode, struct rb_root *root);

// rb_set_parent keeps the node's low two bits; rb_set_color changes bit 0 only.
void rb_set_parent(struct rb_node *node, struct rb_node *parent);
void rb_set_color(struct rb_node *node, int color);

// Augmented trees: after rb_insert_color call rb_augment_insert on the new
// node; around rb_erase call rb_augment_erase_begin before and
// rb_augment_erase_end with its result after. `callback` is handed `data`.
void rb_augment_path(struct rb_node *node, rb_augment_f callback, void *data);
void rb_augment_insert(struct rb_node *node, rb_augment_f callback, void *data);
struct rb_node *rb_augment_erase_begin(struct rb_node *node);
void rb_augment_erase_end(struct rb_node *deepest, rb_augment_f callback, void *data);

// Building blocks of the rebalancing, exported for the tree's own tests.
void __rb_rotate_left(struct rb_node *node, struct rb_root *root);
void __rb_rotate_right(struct rb_node *node, struct rb_root *root);
void __rb_erase_color(struct rb_node *child, struct rb_node *parent, struct rb_root *root);

#ifdef __cplusplus
}  // extern "C"

// The record holding `node` at byte offset `offset`; null stays null. The
// standard-layout check keeps offsetof meaningful.
template <typename T>
inline T *rb_entry_at(struct rb_node *node, size_t offset) noexcept {
    static_assert(std::is_standard_layout_v<T>, "rb_entry needs a standard-layout record");
    return node == nullptr ? nullptr
                           : reinterpret_cast<T *>(reinterpret_cast<char *>(node) - offset);
}
template <typename T>
inline const T *rb_entry_at(const struct rb_node *node, size_t offset) noexcept {
    static_assert(std::is_standard_layout_v<T>, "rb_entry needs a standard-layout record");
    return node == nullptr
               ? nullptr
               : reinterpret_cast<const T *>(reinterpret_cast<const char *>(node) - offset);
}
#define rb_entry(ptr, type, member) (rb_entry_at<type>((ptr), offsetof(type, member)))
#else
// C callers must not pass null here.
#define rb_entry(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))
#endif

#endif  // PLATFORM_RBTREE_H
